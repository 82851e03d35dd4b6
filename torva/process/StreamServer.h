// Serves the standard streams of running children in one select(2) loop: feeds their input
// from producers, and passes their output to consumers. Starting the children is
// torva/process/Pipe.h.
// Private to the library: not installed.
#pragma once

#include "torva/process/Descriptor.h"
#include "torva/process/DescriptorSet.h"
#include "torva/process/Pipe.h"
#include "torva/process/ProcessSetCatcher.h"

#include <array>
#include <cstddef>
#include <vector>

namespace torva::process {

/// Our side of one child's streams.
struct ServedChild {
    const CommonFlags* flags = nullptr; ///< the callbacks; not owned
    Descriptor input;                   ///< write end; closed: nothing (more) to feed
    Descriptor output;                  ///< read end; closed: nothing (more) to read
    Descriptor error;                   ///< the same
    std::vector<char> pending;          ///< the last piece from the producer
    std::size_t written = 0;            ///< how much of it has been written
    bool inputComplete = false;         ///< the producer has no more
    bool inputRefused = false;          ///< some input could not be written
};

/// The loop for the children of one pipe.
class StreamServer {
public:
    /// \param served    the streams; all that are open are served
    /// \param children  the set of the same children
    /// \param catcher   installed for that set
    /// All three must outlive the server.
    StreamServer(std::vector<ServedChild>& served, const ProcessSet& children,
                 ProcessSetCatcher& catcher);

    /// Serves until every child has ended and every stream is closed. SIGCHLD must not be
    /// blocked.
    ///
    /// \throws SystemError  "fcntl", "select", "write", "read", "pipe read-end
    ///         close"; EPIPE is not an error here, it sets ServedChild::inputRefused
    /// \throws whatever a callback throws
    void run();

private:
    void prepareInput(ServedChild& child);
    void prepareSets();
    bool finished() const;
    void waitForEvents();
    void serve(ServedChild& child);
    void feed(ServedChild& child);
    void collect(Descriptor& stream, const OutputConsumer& consumer);

    std::vector<ServedChild>& served_;
    const ProcessSet& children_;
    ProcessSetCatcher& catcher_;
    bool childrenLeft_ = true;
    DescriptorSet readable_;
    DescriptorSet writable_;
    std::array<char, 65536> buffer_; // the default capacity of a pipe: one read empties it
    std::vector<char> chunk_;
};

/// Writes as much as a non-blocking descriptor accepts. While it accepts nothing, tries
/// half the size, because a nearly full pipe accepts a small piece whole or not at all. See
/// pipe(7), PIPE_BUF.
///
/// \param size  at least 1
/// \return the count written, at least 1; errno is as before the call
/// \throws SystemError  "write"; EAGAIN when not even one byte is accepted
std::size_t writeSome(int fd, const char* data, std::size_t size);

} // namespace torva::process
