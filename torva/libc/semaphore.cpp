#include "torva/libc/semaphore.h"

#include "torva/libc/log.h"
#include "torva/libc/panel_conf.h"
#include "torva/libc/semaphore_file.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int semaphoreFile = -1; ///< opened once; -1: not open

static_assert(sizeof(off_t) == 8, "a semaphore number is a 64-bit offset");

/// Reports the failure in errno, in a format for the number and the reason. Ends the
/// process when the status is not 0, otherwise keeps errno.
__attribute__((format(printf, 2, 0))) void reportFailure(int status, const char* format,
                                                         long semnum) {
    const int saved_errno = errno;
    const char* reason = std::strerror(saved_errno);
    errno = saved_errno;
    report_error(status, format, semnum, reason);
}

/// Sets the lock record of one semaphore.
int setLock(int command, short type, long semnum) {
    struct flock record = {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    record.l_start = semnum;
    record.l_len = 1;
    int result;
    do {
        result = ::fcntl(semaphoreFile, command, &record);
    } while (result == -1 && errno == EINTR);
    return result;
}

int takeLock(int command, long semnum) {
    if (semnum < 0) {
        errno = 0;
        report_error(1, "sem_lock() failed for semnum %ld: semnum must not be negative", semnum);
    }
    init_sem();
    if (setLock(command, F_WRLCK, semnum) == 0) {
        return 0;
    }
    if (command != F_SETLK || (errno != EACCES && errno != EAGAIN)) {
        reportFailure(1, "sem_lock() failed for semnum %ld: %s", semnum);
    }
    return -1;
}

} // namespace

extern "C" {

void init_sem(void) {
    if (semaphoreFile != -1) {
        return;
    }
    char path[4096];
    const int length =
        std::snprintf(path, sizeof(path), "%s/var/utilities.sem", panel_conf_get(PRODUCT_ROOT_D));
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof(path)) {
        // A truncated path would be another file.
        errno = ENAMETOOLONG;
    } else {
        semaphoreFile = open_semaphore_file(path);
    }
    if (semaphoreFile == -1) {
        const int saved_errno = errno;
        const char* reason = std::strerror(saved_errno);
        errno = saved_errno;
        report_error(1, "failed to open semaphore file %s: %s", path, reason);
    }
}

int sem_lock(long semnum) {
    return takeLock(F_SETLK, semnum);
}

int sem_lock_wait(long semnum) {
    return takeLock(F_SETLKW, semnum);
}

int sem_unlock(long semnum) {
    if (semnum < 0) {
        errno = 0;
        report_error(1, "sem_unlock() failed for semnum %ld: semnum must not be negative", semnum);
    }
    init_sem();
    if (setLock(F_SETLK, F_UNLCK, semnum) == -1) {
        reportFailure(0, "sem_unlock() failed for semnum %ld: %s", semnum);
        return -1;
    }
    return 0;
}

void shutdown_sem(void) {
    if (semaphoreFile == -1) {
        return;
    }
    const int closed = ::close(semaphoreFile);
    semaphoreFile = -1;
    // Linux has closed the descriptor even if the call was interrupted.
    if (closed == -1 && errno != EINTR) {
        const int saved_errno = errno;
        const char* reason = std::strerror(saved_errno);
        errno = saved_errno;
        report_error(0, "shutdown_sem(): failed to close semaphore file: %s", reason);
    }
}

} // extern "C"
