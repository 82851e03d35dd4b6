#include "torva/util/TmpFile.h"

#include "torva/libc/descriptor.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace torva {

namespace {

const char creationFailed[] = "mkstemp() failed: ";

int syncToDisk(int fd) {
    int result;
    do {
        result = ::fsync(fd);
    } while (result == -1 && errno == EINTR);
    return result;
}

} // namespace

TmpFileBase::TmpFileBase(const std::string& prefix) : path(prefix + "XXXXXX"), fd(-1) {
    const int created = ::mkostemp(path.data(), O_CLOEXEC);
    if (created == -1) {
        const int saved_errno = errno;
        throwSystemError(creationFailed, saved_errno);
    }
    fd = fd_above_standard(created);
    if (fd == -1) {
        const int saved_errno = errno;
        ::unlink(path.c_str());
        throwSystemError(creationFailed, saved_errno);
    }
}

TmpFile::Buffer::int_type TmpFile::Buffer::overflow(int_type c) {
    const int_type result = Base::overflow(c);
    note(!traits_type::eq_int_type(result, traits_type::eof()));
    return result;
}

std::streamsize TmpFile::Buffer::xsputn(const char* text, std::streamsize size) {
    const std::streamsize written = Base::xsputn(text, size);
    note(written == size);
    return written;
}

int TmpFile::Buffer::sync() {
    const int result = Base::sync();
    note(result == 0);
    return result;
}

void TmpFile::Buffer::note(bool written) {
    if (!written && error_ == 0) {
        error_ = errno != 0 ? errno : EIO;
    }
}

// The base is constructed before the buffer, so it gets none at first.
TmpFile::TmpFile(const std::string& prefix, bool autoclean)
    : TmpFileBase(prefix), std::ostream(nullptr), autoclean_(autoclean) {
    try {
        buffer_ = Buffer(fd);
        if (!buffer_.is_open()) {
            const int saved_errno = errno;
            throwSystemError(creationFailed, saved_errno);
        }
    } catch (...) {
        // Already closed if the buffer had taken it.
        ::close(fd);
        ::unlink(path().c_str());
        throw;
    }
    rdbuf(&buffer_);
}

// The destructor of the buffer, which runs after this, writes the rest and closes the file.
TmpFile::~TmpFile() {
    const int saved_errno = errno;
    if (autoclean_ && ::unlink(path().c_str()) == -1) {
        try {
            std::cerr << "TmpFile autoclean failed: " << std::strerror(errno) << std::endl;
        } catch (...) { // NOLINT(bugprone-empty-catch): nobody is left to tell
        }
    }
    errno = saved_errno;
}

void TmpFile::commit() {
    if (!buffer_.is_open()) {
        throw SystemError("write", EBADF);
    }
    // The buffer remembers a failure even if the stream's state was cleared.
    if (buffer_.pubsync() != 0 || !good() || buffer_.error() != 0) {
        throw SystemError("write", buffer_.error() != 0 ? buffer_.error() : EIO);
    }
    if (syncToDisk(fd) == -1) {
        throw SystemError("fsync");
    }
    if (buffer_.close() == nullptr) {
        throw SystemError("close");
    }
    autoclean_ = false;
}

} // namespace torva
