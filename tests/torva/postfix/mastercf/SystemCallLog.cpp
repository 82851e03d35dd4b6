#include "SystemCallLog.h"

#include <cerrno>
#include <climits>
#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace torva::mail::postfix::testing {

namespace {

SystemCallLog* current = nullptr;

/// The last component; "target.a1B2c3" as "target.XXXXXX".
std::string nameOf(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && name.size() - dot == 7) {
        name.replace(dot + 1, 6, "XXXXXX");
    }
    return name;
}

std::string nameOf(int fd) {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = ::readlink(link.c_str(), target, sizeof(target));
    return size < 0 ? "?" : nameOf(std::string(target, static_cast<std::size_t>(size)));
}

/// What a note says of a descriptor that a child or a message could mistake for its own.
std::string standing(int fd) {
    const bool standard = fd >= STDIN_FILENO && fd <= STDERR_FILENO;
    return standard ? " on descriptor " + std::to_string(fd) : "";
}

bool fails(const std::string& call) {
    const int error = current != nullptr ? current->note(call) : 0;
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

} // namespace

SystemCallLog::SystemCallLog() {
    current = this;
}

SystemCallLog::~SystemCallLog() {
    current = nullptr;
}

void SystemCallLog::fail(const std::string& beginning, int error) {
    failing_ = beginning;
    error_ = error;
}

void SystemCallLog::before(const std::string& beginning, std::function<void()> action) {
    watched_ = beginning;
    action_ = std::move(action);
}

int SystemCallLog::note(const std::string& call) {
    calls_.push_back(call);
    if (action_ && call.rfind(watched_, 0) == 0) {
        action_();
    }
    return error_ != 0 && call.rfind(failing_, 0) == 0 ? error_ : 0;
}

} // namespace torva::mail::postfix::testing

extern "C" {

using torva::mail::postfix::testing::fails;
using torva::mail::postfix::testing::nameOf;
using torva::mail::postfix::testing::standing;

int chmod(const char* path, mode_t mode) noexcept {
    char octal[16];
    std::snprintf(octal, sizeof(octal), "%04o", mode);
    return fails("chmod " + nameOf(path) + " " + octal) ? -1 : ::fchmodat(AT_FDCWD, path, mode, 0);
}

int fchmod(int fd, mode_t mode) noexcept {
    char octal[16];
    std::snprintf(octal, sizeof(octal), "%04o", mode);
    return fails("fchmod " + nameOf(fd) + " " + octal + standing(fd))
               ? -1
               : static_cast<int>(::syscall(SYS_fchmod, fd, mode));
}

int rename(const char* from, const char* to) noexcept {
    return fails("rename " + nameOf(from) + " " + nameOf(to))
               ? -1
               : ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}

int fsync(int fd) {
    struct stat status {};
    const bool directory = ::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    return fails((directory ? "fsync directory" : "fsync file") + standing(fd))
               ? -1
               : static_cast<int>(::syscall(SYS_fsync, fd));
}

int flock(int fd, int operation) noexcept {
    return fails("flock " + nameOf(fd) + standing(fd))
               ? -1
               : static_cast<int>(::syscall(SYS_flock, fd, operation));
}

void* mmap(void* place, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    if (!standing(fd).empty()) {
        fails("mmap" + standing(fd));
    }
    const long mapped = ::syscall(SYS_mmap, place, size, protection, flags, fd, offset);
    return reinterpret_cast<void*>(mapped); // NOLINT(performance-no-int-to-ptr): as the C library
}

} // extern "C"
