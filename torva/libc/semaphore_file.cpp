#include "torva/libc/semaphore_file.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Writes the directory part of a path, up to its last slash.
///
/// \param parent  has room for the whole path
void parentOf(const char* path, char* parent) {
    const auto length = static_cast<std::size_t>(std::strrchr(path, '/') - path);
    const std::size_t kept = length == 0 ? 1 : length;
    std::memcpy(parent, path, kept);
    parent[kept] = '\0';
}

/// Creates each missing directory in the path of the file.
///
/// \param path  modified during the call
/// \return false, with errno, when one cannot be created
bool makeDirectories(char* path) {
    for (char* slash = std::strchr(path + 1, '/'); slash != nullptr;
         slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        struct stat status;
        const bool missing = ::stat(path, &status) == -1 && errno == ENOENT;
        // Another process may create it at the same time.
        const bool failed = missing && ::mkdir(path, 0755) == -1 && errno != EEXIST;
        *slash = '/';
        if (failed) {
            return false;
        }
    }
    return true;
}

/// \return whether the open file can be trusted; if not, with errno, and reported unless
///         fstat(2) failed
bool isTrusted(int fd, const char* path) {
    struct stat status;
    if (::fstat(fd, &status) == -1) {
        return false;
    }
    const bool ours = status.st_uid == 0 || status.st_uid == ::geteuid();
    if (ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return true;
    }
    errno = EPERM;
    if (!ours) {
        report_error(0, "\"%s\" belongs to user %lu, not to root or to this program's user.", path,
                     static_cast<unsigned long>(status.st_uid));
    } else {
        report_error(0, "\"%s\" is writable by its group or by others (mode %04o).", path,
                     static_cast<unsigned>(status.st_mode & 07777U));
    }
    return false;
}

void closeKeepingErrno(int fd) {
    const int saved_errno = errno;
    ::close(fd);
    errno = saved_errno;
}

/// Opens a file in a directory, and checks whether it can be trusted.
///
/// \param path  its whole path, for the report
int openTrusted(int directory, const char* name, const char* path, int flags) {
    int fd;
    do {
        fd = ::openat(directory, name, flags | O_CLOEXEC, 0600);
    } while (fd == -1 && errno == EINTR);
    fd = fd_above_standard(fd);
    if (fd != -1 && !isTrusted(fd, path)) {
        closeKeepingErrno(fd);
        return -1;
    }
    return fd;
}

/// Opens the file itself, without blocking if it is a FIFO or a terminal.
int openFile(int directory, const char* path, int flags) {
    const char* name = std::strrchr(path, '/') + 1;
    const int fd =
        openTrusted(directory, name, path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | flags);
    struct stat status;
    if (fd == -1 || (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode))) {
        return fd;
    }
    ::close(fd);
    errno = EPERM;
    report_error(0, "\"%s\" is no regular file.", path);
    return -1;
}

/// Opens ROOT, from there "var", and from there the file.
int openFromTheRoot(const char* path, int flags) {
    char directoryPath[PATH_MAX];
    char rootPath[PATH_MAX];
    parentOf(path, directoryPath);
    parentOf(directoryPath, rootPath);
    const char* name = std::strrchr(directoryPath, '/') + 1;
    const int root = openTrusted(AT_FDCWD, rootPath, rootPath, O_PATH | O_DIRECTORY);
    if (root == -1) {
        return -1;
    }
    const int directory = openTrusted(root, name, directoryPath, O_PATH | O_DIRECTORY);
    closeKeepingErrno(root);
    if (directory == -1) {
        return -1;
    }
    const int fd = openFile(directory, path, flags);
    closeKeepingErrno(directory);
    return fd;
}

} // namespace

int open_semaphore_file(const char* path) {
    char copy[PATH_MAX];
    const std::size_t size = std::strlen(path) + 1;
    if (size > sizeof(copy)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(copy, path, size);
    int fd = openFromTheRoot(path, 0);
    if (fd == -1 && errno == ENOENT && makeDirectories(copy)) {
        fd = openFromTheRoot(path, O_CREAT);
    }
    return fd;
}
