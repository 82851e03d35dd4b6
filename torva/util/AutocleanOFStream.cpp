#include "torva/util/AutocleanOFStream.h"

#include "torva/libc/descriptor.h"

#include <cerrno>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <unistd.h>

namespace torva {

namespace {

/// The flags of open(2) for a mode, see fopen(3); -1 when there is no such mode.
int flagsOf(std::ios_base::openmode mode) {
    const bool reads = (mode & std::ios_base::in) != 0;
    const bool appends = (mode & std::ios_base::app) != 0;
    const bool truncates = (mode & std::ios_base::trunc) != 0;
    if (appends && truncates) {
        errno = EINVAL;
        return -1;
    }
    int flags = (reads ? O_RDWR : O_WRONLY) | O_CLOEXEC;
    if (appends) {
        flags |= O_CREAT | O_APPEND;
    } else if (truncates || !reads) {
        flags |= O_CREAT | O_TRUNC;
    }
    return flags;
}

/// std::filebuf would open a descriptor that children inherit, and that may be 0, 1 or 2
/// when that is closed.
int openFile(const std::string& file, std::ios_base::openmode mode) {
    const int flags = flagsOf(mode);
    if (flags == -1) {
        return -1;
    }
    int fd;
    do {
        fd = ::open(file.c_str(), flags, 0666);
    } while (fd == -1 && errno == EINTR);
    return fd_above_standard(fd);
}

} // namespace

AutocleanOFStream::AutocleanOFStream(const std::string& file, openmode mode) : path(file) {
    attach(openFile(file, mode | out), mode | out);
}

AutocleanOFStream::AutocleanOFStream(const std::string& file, int fd) : path(file) {
    attach(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), out);
}

void AutocleanOFStream::attach(int fd, openmode mode) {
    if (fd == -1) {
        setstate(failbit);
        return;
    }
    *rdbuf() = __gnu_cxx::stdio_filebuf<char>(fd, mode);
    if (!is_open()) {
        const int saved_errno = errno;
        ::close(fd);
        errno = saved_errno;
        setstate(failbit);
    } else if ((mode & ate) != 0) {
        seekp(0, end);
    }
}

AutocleanOFStream::~AutocleanOFStream() {
    const int saved_errno = errno;
    ::unlink(path.c_str());
    errno = saved_errno;
    try {
        rdbuf()->close();
    } catch (...) { // NOLINT(bugprone-empty-catch): the file is gone anyway
    }
    errno = saved_errno;
}

} // namespace torva
