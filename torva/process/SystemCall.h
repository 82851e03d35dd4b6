// System calls that are repeated while a signal interrupts them, and whose failure is
// thrown with the name of the operation.
// Private to the library: not installed.
#pragma once

#include "torva/util/SystemError.h"

#include <cerrno>

namespace torva::process {

/// Throws SystemError for the call that has just failed. errno is read before the message
/// is copied: an allocation may change it.
[[noreturn]] inline void throwLastError(const char* operation) {
    const int code = errno;
    throw SystemError(operation, code);
}

/// The result of a call that returns -1 on failure, repeated while it fails with EINTR.
/// errno is that of the last attempt.
template <typename Call>
auto retried(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

/// The same for a call that must succeed.
///
/// \param operation  the message of the error
/// \throws SystemError  any failure but EINTR
template <typename Call>
auto systemCall(const char* operation, Call call) -> decltype(call()) {
    const auto result = retried(call);
    if (result == -1) {
        throwLastError(operation);
    }
    return result;
}

} // namespace torva::process
