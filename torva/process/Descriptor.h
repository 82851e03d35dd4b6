// The owner of one file descriptor, and anonymous pipes. All descriptors that are opened
// here are close-on-exec from birth and above 2: a child inherits only what it is given,
// and a process that was started with a closed standard stream does not get one of ours in
// its place.
#pragma once

#include <utility>

namespace torva::process {

/// Owns a descriptor; -1 means closed.
class Descriptor {
public:
    Descriptor() noexcept = default;
    /// \param fd  descriptor to own; -1: none
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    /// Like closeQuietly(); call release() on planned paths.
    ~Descriptor() { closeQuietly(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            closeQuietly();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }

    /// The descriptor, still owned here; -1: closed.
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ != -1; }

    /// Closes the descriptor and reports a failure. Nothing is owned afterwards, even
    /// after a failure.
    ///
    /// \param operation  the message of the error
    /// \throws SystemError  close(2) failed; never while an exception is
    ///         propagating: then this is closeQuietly()
    void release(const char* operation = "close");

    /// Closes the descriptor, ignores failures and keeps errno; for exception handlers.
    void closeQuietly() noexcept;

private:
    int fd_ = -1;
};

/// The two ends of a pipe(7).
struct PipeEnds {
    Descriptor read;
    Descriptor write;
};

/// A new pipe, both ends close-on-exec and above 2.
///
/// \param operation  the message of the error
/// \throws SystemError  nothing is left open
PipeEnds openPipe(const char* operation);

/// The null device, close-on-exec and above 2.
///
/// \param flags      O_RDONLY or O_WRONLY
/// \param operation  the message of the error
/// \throws SystemError
Descriptor openNullDevice(int flags, const char* operation);

/// The given number when it is an open descriptor or negative, otherwise a number that no
/// descriptor can have. Call it before opening anything: otherwise the number of a
/// descriptor that a caller has closed could be taken by one of ours, which would be
/// passed on in its place.
int pinned(int fd) noexcept;

} // namespace torva::process
