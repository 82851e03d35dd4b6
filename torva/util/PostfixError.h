// Errors of the mail server layer, caused by a Postfix tool or a Postfix file. Their text
// is the whole message. Failed system calls are torva/util/SystemError.h.
#pragma once

#include <stdexcept>
#include <string>

namespace torva::mail::postfix {

/// Base of the two below.
class PostfixError : public std::runtime_error {
public:
    explicit PostfixError(const std::string& message);
    ~PostfixError() override;
};

/// The mail server's configuration is invalid, or cannot be read or changed.
class PostfixConfigurationError : public PostfixError {
public:
    explicit PostfixConfigurationError(const std::string& message);
    ~PostfixConfigurationError() override;
};

/// A lookup table cannot be read or written.
class PostfixDatabaseError : public PostfixError {
public:
    explicit PostfixDatabaseError(const std::string& message);
    ~PostfixDatabaseError() override;
};

} // namespace torva::mail::postfix
