// Errors of failed system calls: a runtime error with an errno value, and a subclass for
// each errno that a caller may want to catch by type. The errors of the mail server layer
// are in torva/util/PostfixError.h.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace torva {

/// A failed system call.
class SystemError : public std::runtime_error {
public:
    /// \param message  name of the operation that failed, such as "select"
    /// \param code     errno value; 0: the current errno
    explicit SystemError(const std::string& message, int code = 0);
    /// The same for a literal: errno is read before memory is allocated.
    explicit SystemError(const char* message, int code = 0);
    ~SystemError() override;

    /// The message, ": " and the text of strerror(3) for the code; only the latter when
    /// the message is empty; only the message when memory runs out. Built once.
    const char* what() const noexcept override;

    /// The errno value.
    int code() const noexcept { return code_; }

private:
    SystemError(int saved_errno, const std::string& message, int code);
    SystemError(int saved_errno, const char* message, int code);

    std::int32_t code_;
    mutable std::string cachedWhat;
};

/// The error for one errno value, for callers that catch it by type.
template <int N>
class ExSystemError : public SystemError {
public:
    explicit ExSystemError(const std::string& message) : SystemError(message, N) {}
};

extern template class ExSystemError<1>;  // EPERM
extern template class ExSystemError<2>;  // ENOENT
extern template class ExSystemError<4>;  // EINTR
extern template class ExSystemError<10>; // ECHILD
extern template class ExSystemError<11>; // EAGAIN

/// Throws the ExSystemError for the code, or a plain SystemError when there is none. For
/// code 0 throws a plain SystemError with the current errno.
[[noreturn]] void throwSystemError(const std::string& message, int code);

} // namespace torva
