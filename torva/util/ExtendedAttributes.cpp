#include "torva/util/ExtendedAttributes.h"

#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstring>
#include <linux/limits.h>
#include <sys/xattr.h>
#include <vector>

namespace torva {

namespace {

void copyOne(int from, int to, const char* name, std::vector<char>& value) {
    const ssize_t size = ::fgetxattr(from, name, value.data(), value.size());
    if (size >= 0 && ::fsetxattr(to, name, value.data(), static_cast<std::size_t>(size), 0) == 0) {
        return;
    }
    if (errno != ENOTSUP && errno != ENODATA) {
        throw SystemError("fsetxattr");
    }
}

} // namespace

void copyExtendedAttributes(int from, int to) {
    std::vector<char> names(XATTR_LIST_MAX);
    std::vector<char> value(XATTR_SIZE_MAX);
    const ssize_t size = ::flistxattr(from, names.data(), names.size());
    for (ssize_t at = 0; at < size;) {
        const char* const name = names.data() + at;
        copyOne(from, to, name, value);
        at += static_cast<ssize_t>(std::strlen(name)) + 1;
    }
}

} // namespace torva
