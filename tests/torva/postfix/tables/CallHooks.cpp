#include "CallHooks.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace torva::test {

namespace {

std::function<int(const std::string&, const std::string&)> hooked;

/// Whether the call must fail.
bool fails(const char* call, const std::string& path) {
    if (!hooked) {
        return false;
    }
    // Calls by the action itself are not affected.
    auto action = std::exchange(hooked, nullptr);
    const int error = action(call, path);
    hooked = std::move(action);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

} // namespace

CallHook::CallHook(std::function<int(const std::string&, const std::string&)> action) {
    hooked = std::move(action);
}

CallHook::~CallHook() {
    hooked = nullptr;
}

} // namespace torva::test

extern "C" {

using torva::test::fails;

int chmod(const char* path, mode_t mode) noexcept {
    return fails("chmod", path) ? -1 : ::fchmodat(AT_FDCWD, path, mode, 0);
}

int chown(const char* path, uid_t owner, gid_t group) noexcept {
    return fails("chown", path) ? -1 : ::fchownat(AT_FDCWD, path, owner, group, 0);
}

int fchmod(int fd, mode_t mode) noexcept {
    return fails("fchmod", "") ? -1 : static_cast<int>(::syscall(SYS_fchmod, fd, mode));
}

int fchown(int fd, uid_t owner, gid_t group) noexcept {
    return fails("fchown", "") ? -1 : static_cast<int>(::syscall(SYS_fchown, fd, owner, group));
}

int link(const char* from, const char* to) noexcept {
    return fails("link", from) ? -1 : ::linkat(AT_FDCWD, from, AT_FDCWD, to, 0);
}

ssize_t read(int fd, void* buffer, size_t size) {
    return fails("read", "") ? -1 : ::syscall(SYS_read, fd, buffer, size);
}

ssize_t readlink(const char* path, char* target, size_t size) noexcept {
    return fails("readlink", path) ? -1 : ::readlinkat(AT_FDCWD, path, target, size);
}

int rename(const char* from, const char* to) noexcept {
    return fails("rename", from) ? -1 : ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}

} // extern "C"
