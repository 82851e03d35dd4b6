#include "torva/util/PostfixError.h"

namespace torva::mail::postfix {

PostfixError::PostfixError(const std::string& message) : std::runtime_error(message) {}
PostfixError::~PostfixError() = default;

PostfixConfigurationError::PostfixConfigurationError(const std::string& message)
    : PostfixError(message) {}
PostfixConfigurationError::~PostfixConfigurationError() = default;

PostfixDatabaseError::PostfixDatabaseError(const std::string& message) : PostfixError(message) {}
PostfixDatabaseError::~PostfixDatabaseError() = default;

} // namespace torva::mail::postfix
