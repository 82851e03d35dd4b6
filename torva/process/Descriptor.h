// The owner of one file descriptor, and the anonymous pipes made of two of them.
// Whatever is opened here is close-on-exec from birth and above 2: a child gets
// only what it is given, and the standard streams of a process that was started
// with some of them closed are never taken by accident.
#pragma once

#include <utility>

namespace torva::process {

/// Owns a descriptor; -1 means closed.
class Descriptor {
public:
    Descriptor() noexcept = default;
    /// \param fd  descriptor to own from now on; -1: none
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    /// For the ways out that were not planned: closes silently, like closeQuietly().
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

    /// Closes, and says so when that fails; the way to release on every planned
    /// path. Nothing is owned afterwards, even on failure.
    ///
    /// \param operation  the message of the error
    /// \throws SystemError  close(2) failed; never while an exception is
    ///         propagating: then the release is silent and keeps errno
    void release(const char* operation = "close");

    /// Closes without a word and keeps errno; for handlers that hold an exception.
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
/// \throws SystemError  nothing stays open then
PipeEnds openPipe(const char* operation);

/// The null device, close-on-exec and above 2.
///
/// \param flags      O_RDONLY or O_WRONLY
/// \param operation  the message of the error
/// \throws SystemError
Descriptor openNullDevice(int flags, const char* operation);

/// A number that is closed now and stays so whatever is opened later: the given
/// one when it is open, otherwise one that no descriptor can have. Ask before
/// opening anything, or the number of a descriptor that a caller has closed is
/// taken by one of ours and handed over in its place.
int pinned(int fd) noexcept;

} // namespace torva::process
