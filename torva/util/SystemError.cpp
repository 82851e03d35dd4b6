#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstring>

namespace torva {

template class ExSystemError<1>;
template class ExSystemError<2>;
template class ExSystemError<4>;
template class ExSystemError<10>;
template class ExSystemError<11>;

// errno is passed as an argument, and so read first: copying the message may allocate
// memory, which may change it.
SystemError::SystemError(const std::string& message, int code)
    : SystemError(errno, message, code) {}

SystemError::SystemError(const char* message, int code) : SystemError(errno, message, code) {}

SystemError::SystemError(int saved_errno, const std::string& message, int code)
    : std::runtime_error(message), code_(code != 0 ? code : saved_errno) {}

SystemError::SystemError(int saved_errno, const char* message, int code)
    : std::runtime_error(message), code_(code != 0 ? code : saved_errno) {}

SystemError::~SystemError() = default;

const char* SystemError::what() const noexcept {
    try {
        if (cachedWhat.empty()) {
            std::string text = std::runtime_error::what();
            if (!text.empty()) {
                text += ": ";
            }
            text += std::strerror(code_);
            cachedWhat.swap(text);
        }
        return cachedWhat.c_str();
    } catch (...) {
        return std::runtime_error::what();
    }
}

void throwSystemError(const std::string& message, int code) {
    switch (code) {
    case 1:
        throw ExSystemError<1>(message);
    case 2:
        throw ExSystemError<2>(message);
    case 4:
        throw ExSystemError<4>(message);
    case 11:
        throw ExSystemError<11>(message);
    case 10:
        throw ExSystemError<10>(message);
    default:
        throw SystemError(message, code);
    }
}

} // namespace torva
