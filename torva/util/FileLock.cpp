#include "torva/util/FileLock.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char lockDirectory[] = "/var/lock/files";

/// The path to lock, in memory from malloc(3); null when there is none.
char* lockPath(const char* name, bool in_lock_dir) {
    if (!in_lock_dir) {
        return strdup(name);
    }
    const size_t size = sizeof(lockDirectory) + 1 + std::strlen(name);
    auto* path = static_cast<char*>(std::malloc(size));
    if (path != nullptr) {
        std::snprintf(path, size, "%s/%s", lockDirectory, name);
        std::replace(path + sizeof(lockDirectory), path + size, '/', '_');
    }
    return path;
}

/// A descriptor above 2: 0 in a handle means that somebody else holds the lock.
int openLockFile(const char* path) {
    int fd;
    do {
        fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    } while (fd == -1 && errno == EINTR);
    return fd_above_standard(fd);
}

int lockDescriptor(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result == -1 && errno == EINTR);
    return result;
}

file_lock* takeLock(const char* name, bool in_lock_dir, int operation) {
    auto* handle = static_cast<file_lock*>(std::malloc(sizeof(file_lock)));
    char* path = lockPath(name, in_lock_dir);
    if (handle == nullptr || path == nullptr) {
        std::free(handle);
        std::free(path);
        errno = ENOMEM;
        return nullptr;
    }
    *handle = {openLockFile(path), path};
    if (handle->fd < 0) {
        const int saved_errno = errno;
        const char* reason = std::strerror(saved_errno);
        errno = saved_errno;
        report_error(0, "Unable to open file \"%s\": %s.", path, reason);
    } else if (lockDescriptor(handle->fd, operation) == -1) {
        // Judged before the close, which may change it.
        const int saved_errno = errno;
        ::close(handle->fd);
        handle->fd = saved_errno == EAGAIN ? 0 : -1;
        errno = saved_errno;
    }
    return handle;
}

} // namespace

extern "C" {

struct file_lock* file_lock_try(const char* name, int in_lock_dir) {
    return takeLock(name, in_lock_dir != 0, LOCK_EX | LOCK_NB);
}

struct file_lock* file_lock_wait(const char* name, int in_lock_dir) {
    return takeLock(name, in_lock_dir != 0, LOCK_EX);
}

void file_lock_free(struct file_lock* handle) {
    if (handle == nullptr) {
        return;
    }
    const int saved_errno = errno;
    if (handle->fd > 0) {
        ::close(handle->fd);
    }
    std::free(handle->path);
    std::free(handle);
    errno = saved_errno;
}

} // extern "C"

namespace torva {

file_lock* lock(const std::string& name, bool in_lock_dir, LockMode mode) {
    if (in_lock_dir) {
        // Best effort: opening the lock file tells what is wrong.
        ::mkdir(lockDirectory, 0755);
    }
    const auto take = mode == LockMode::wait ? file_lock_wait : file_lock_try;
    file_lock* handle = take(name.c_str(), in_lock_dir ? 1 : 0);
    const int saved_errno = errno;
    if (handle != nullptr && handle->fd > 0) {
        return handle;
    }
    const bool held = handle != nullptr && handle->fd == 0;
    file_lock_free(handle);
    if (held) {
        throw std::runtime_error("lock(" + name + ") failed: file is already locked");
    }
    throwSystemError("lock() failed", saved_errno);
}

FileLock::FileLock(const std::string& name, LockMode mode) : handle_(lock(name, true, mode)) {}

FileLock::~FileLock() {
    file_lock_free(handle_);
}

} // namespace torva
