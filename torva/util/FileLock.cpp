#include "torva/util/FileLock.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"
#include "torva/util/LockDirectory.h"
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

/// The path to lock, in memory from malloc(3); null when there is none.
char* lockPath(const char* name, bool in_lock_dir) {
    if (!in_lock_dir) {
        return strdup(name);
    }
    const size_t length = std::strlen(torva::lockDirectory);
    const size_t size = length + 2 + std::strlen(name);
    auto* path = static_cast<char*>(std::malloc(size));
    if (path != nullptr) {
        std::snprintf(path, size, "%s/%s", torva::lockDirectory, name);
        std::replace(path + length + 1, path + size, '/', '_');
    }
    return path;
}

/// Whether a name in the lock directory belongs to a file with a second hard link. Only we
/// can create one there, unless the directory once belonged to another account.
bool hasSecondName(int directory, const char* name) {
    struct stat status;
    return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && status.st_nlink > 1;
}

void closeKeepingErrno(int fd) {
    const int saved_errno = errno;
    ::close(fd);
    errno = saved_errno;
}

/// Opens, and so empties, a regular file, and tells its status. Does not follow a link, and
/// does not block on a terminal, FIFO or device.
int openRegularFile(int directory, const char* name, struct stat& status) {
    int fd;
    do {
        fd = ::openat(directory, name,
                      O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                      0644);
    } while (fd == -1 && errno == EINTR);
    // Above 2: a 0 in a handle means that the lock is held elsewhere.
    fd = fd_above_standard(fd);
    if (fd == -1 || (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode))) {
        return fd;
    }
    ::close(fd);
    errno = EPERM;
    return -1;
}

/// Whether an open lock file belongs to us; reports one that does not. Its owner made it
/// while the directory was theirs, and may still have it open, and locked.
bool isOwn(const struct stat& status, const char* path) {
    if (status.st_uid == ::geteuid()) {
        return true;
    }
    errno = EPERM;
    report_error(0, "Lock file \"%s\" belongs to user %lu, not to user %lu.", path,
                 static_cast<unsigned long>(status.st_uid),
                 static_cast<unsigned long>(::geteuid()));
    return false;
}

void reportUnopened(const char* path) {
    const int saved_errno = errno;
    const char* reason = std::strerror(saved_errno);
    errno = saved_errno;
    report_error(0, "Unable to open file \"%s\": %s.", path, reason);
}

/// Opens the file to lock, reporting a failure.
int openLockFile(const char* path, bool in_lock_dir) {
    int fd = -1;
    struct stat status;
    if (!in_lock_dir) {
        fd = openRegularFile(AT_FDCWD, path, status);
    } else if (const int directory = torva::openLockDirectory(); directory != -1) {
        const char* name = path + std::strlen(torva::lockDirectory) + 1;
        if (hasSecondName(directory, name)) {
            errno = EMLINK;
        } else {
            fd = openRegularFile(directory, name, status);
        }
        if (fd != -1 && !isOwn(status, path)) {
            closeKeepingErrno(fd);
            fd = -1;
        }
        closeKeepingErrno(directory);
    }
    if (fd == -1) {
        reportUnopened(path);
    }
    return fd;
}

int lockDescriptor(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result == -1 && errno == EINTR);
    return result;
}

/// Whether the locked file still has its name. A lock on one that was removed between
/// opening and locking excludes nobody, see torva/util/UntrustedLocks.h.
bool isStillNamed(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == -1 || status.st_nlink > 0;
}

/// Opens and locks the file.
///
/// \return the value for file_lock::fd
int openAndLock(const char* path, bool in_lock_dir, int operation) {
    for (;;) {
        const int fd = openLockFile(path, in_lock_dir);
        if (fd == -1) {
            return -1;
        }
        if (lockDescriptor(fd, operation) == -1) {
            closeKeepingErrno(fd);
            return errno == EAGAIN ? 0 : -1;
        }
        if (!in_lock_dir || isStillNamed(fd)) {
            return fd;
        }
        ::close(fd);
    }
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
    *handle = {openAndLock(path, in_lock_dir, operation), path};
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
        makeLockDirectory();
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
