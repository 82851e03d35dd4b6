#include "torva/postfix/tables/PopUser.h"

#include "torva/util/SystemError.h"

#include <cerrno>
#include <string>

namespace torva::mail::postfix {

const passwd& popUser() {
    static const char name[] = "popuser";
    // When there is no such user, getpwnam(3) leaves errno alone.
    errno = 0;
    const passwd* entry = ::getpwnam(name);
    const int code = errno;
    if (entry == nullptr) {
        errno = code;
        throw SystemError(std::string("user ") + name + "not found", code);
    }
    return *entry;
}

} // namespace torva::mail::postfix
