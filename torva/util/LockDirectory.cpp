#include "torva/util/LockDirectory.h"

#include "torva/libc/descriptor.h"
#include "torva/libc/log.h"
#include "torva/util/UntrustedLocks.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva {

const char lockDirectory[] = "/var/lock/files";

namespace {

const mode_t forOthers = S_IRWXG | S_IRWXO;

int openDirectory() {
    int fd;
    do {
        fd = ::open(lockDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    } while (fd == -1 && errno == EINTR);
    if (fd == -1 && errno == ENOTDIR) {
        // Linux gives the same error for a link and for a file; only the link is suspicious
        // enough for a report.
        struct stat status;
        const bool link = ::lstat(lockDirectory, &status) == 0 && S_ISLNK(status.st_mode);
        errno = ENOTDIR;
        if (link) {
            report_error(0, "Lock directory \"%s\" is a symbolic link.", lockDirectory);
        }
    }
    return fd_above_standard(fd);
}

/// \return 0; -1 with errno, reported where the directory is not ours alone
int judge(int fd) {
    struct stat status;
    if (::fstat(fd, &status) == -1) {
        return -1;
    }
    if (status.st_uid != ::geteuid()) {
        errno = EPERM;
        report_error(0, "Lock directory \"%s\" belongs to user %lu, not to user %lu.",
                     lockDirectory, static_cast<unsigned long>(status.st_uid),
                     static_cast<unsigned long>(::geteuid()));
        return -1;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        // Anybody may have put files into it.
        errno = EPERM;
        report_error(0, "Lock directory \"%s\" is writable by its group or by others (mode %04o).",
                     lockDirectory, static_cast<unsigned>(status.st_mode & 07777U));
        return -1;
    }
    if ((status.st_mode & forOthers) == 0) {
        return 0;
    }
    if (::fchmod(fd, S_IRWXU) == -1) {
        return -1;
    }
    removeUntrustedLocks(fd);
    return 0;
}

} // namespace

void makeLockDirectory() {
    ::mkdir(lockDirectory, S_IRWXU);
}

int openLockDirectory() {
    const int fd = openDirectory();
    if (fd != -1 && judge(fd) == -1) {
        const int saved_errno = errno;
        ::close(fd);
        errno = saved_errno;
        return -1;
    }
    return fd;
}

} // namespace torva
