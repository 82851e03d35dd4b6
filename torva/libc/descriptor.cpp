#include "torva/libc/descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

int fd_above_standard(int fd) {
    if (fd < 0) {
        return -1;
    }
    if (fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int saved_errno = errno;
    ::close(fd);
    errno = saved_errno;
    return moved;
}
