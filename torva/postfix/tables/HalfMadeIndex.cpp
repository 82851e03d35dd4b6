#include "torva/postfix/tables/HalfMadeIndex.h"

#include <cerrno>
#include <new>
#include <unistd.h>

namespace torva::mail::postfix {

void removeHalfMadeIndex(const std::string& source) noexcept {
    const int saved_errno = errno;
    const std::string::size_type name = source.rfind('/') + 1; // 0 without a slash
    try {
        ::unlink((source.substr(0, name) + "__db." + source.substr(name) + ".db").c_str());
    } catch (const std::bad_alloc&) { // NOLINT(bugprone-empty-catch): best effort
    }
    errno = saved_errno;
}

} // namespace torva::mail::postfix
