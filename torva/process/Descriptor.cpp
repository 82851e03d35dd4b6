#include "torva/process/Descriptor.h"

#include "torva/process/SystemCall.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

namespace torva::process {
namespace {

constexpr int firstFree = STDERR_FILENO + 1;

// Linux has released the number even when close(2) says EINTR: what the second
// attempt then finds closed was closed by the first.
int closeRetrying(int fd) noexcept {
    int result = ::close(fd);
    if (result == -1 && errno == EINTR) {
        result = retried([fd] { return ::close(fd); });
        if (result == -1 && errno == EBADF) {
            result = 0;
        }
    }
    return result;
}

void moveAboveStandard(Descriptor& descriptor, const char* operation) {
    if (descriptor.get() >= firstFree) {
        return;
    }
    const int low = descriptor.get();
    Descriptor moved(
        systemCall(operation, [low] { return ::fcntl(low, F_DUPFD_CLOEXEC, firstFree); }));
    std::swap(descriptor, moved);
    moved.release();
}

} // namespace

void Descriptor::release(const char* operation) {
    if (std::uncaught_exceptions() != 0) {
        closeQuietly();
        return;
    }
    const int fd = std::exchange(fd_, -1);
    if (fd != -1 && closeRetrying(fd) == -1) {
        throwLastError(operation);
    }
}

void Descriptor::closeQuietly() noexcept {
    const int fd = std::exchange(fd_, -1);
    if (fd != -1) {
        const int saved = errno;
        closeRetrying(fd);
        errno = saved;
    }
}

PipeEnds openPipe(const char* operation) {
    int fds[2];
    systemCall(operation, [&fds] { return ::pipe2(fds, O_CLOEXEC); });
    PipeEnds ends{Descriptor(fds[0]), Descriptor(fds[1])};
    moveAboveStandard(ends.read, operation);
    moveAboveStandard(ends.write, operation);
    return ends;
}

Descriptor openNullDevice(int flags, const char* operation) {
    Descriptor device(
        systemCall(operation, [flags] { return ::open("/dev/null", flags | O_CLOEXEC); }));
    moveAboveStandard(device, operation);
    return device;
}

int pinned(int fd) noexcept {
    if (fd < 0 || ::fcntl(fd, F_GETFD) != -1) {
        return fd;
    }
    return std::numeric_limits<int>::max();
}

} // namespace torva::process
