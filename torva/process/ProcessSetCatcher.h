// Notices the end of children: a set of them, and the SIGCHLD handler that reaps them and
// wakes a loop in select(2). Waiting for a single child without a handler is waitForExit()
// in torva/process/Launch.h.
//
// Threads: one thread uses a set with its catcher, from install() until it is removed, and
// does not end before that. Other threads may run, and may have SIGCHLD blocked or not:
// when the handler is called in one of them, it forwards the signal to that thread. A child
// that any of them starts is also reaped, and its status is lost to them.
#pragma once

#include "torva/process/Descriptor.h"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <sys/types.h>
#include <vector>

namespace torva::process {

/// One child of a set.
struct WatchedChild {
    pid_t pid;
    int status; ///< raw wait status, see waitpid(2); 0 until it has ended
    bool ended;
};

/// Children in the order of adding. While a catcher is installed, SIGCHLD must be blocked
/// around every change, or the handler could find the set half changed.
class ProcessSet {
public:
    /// \param capacity  how many children can be added
    explicit ProcessSet(std::size_t capacity);

    /// Adds a running child. Cannot fail within the capacity: nobody would reap a child
    /// that could not be added.
    void add(pid_t pid) noexcept;

    /// Stores the wait status of a child that has ended. Async-signal-safe.
    ///
    /// \return false: there is no such running child in the set
    bool recordEnd(pid_t pid, int status) noexcept;

    /// How many children have not ended yet.
    std::size_t running() const noexcept;

    /// Raw wait status of a child; 0 while it runs.
    ///
    /// \throws std::out_of_range  "no such pid"
    int status(pid_t pid) const;

    const std::vector<WatchedChild>& children() const noexcept { return children_; }

private:
    std::vector<WatchedChild> children_;
    std::atomic<std::size_t> ended_{0}; ///< changed by the handler, after the child's entry
};

/// Watches a set. The sequence: block SIGCHLD, install(), add the children, unblock
/// SIGCHLD; select(2) on wakeFd(), then drain(); remove().
class ProcessSetCatcher {
public:
    /// \param children  the set, which must outlive the catcher
    explicit ProcessSetCatcher(ProcessSet& children);
    /// Like remove(), but silent, and even while children run; for exceptions.
    ~ProcessSetCatcher();
    ProcessSetCatcher(const ProcessSetCatcher&) = delete;
    ProcessSetCatcher& operator=(const ProcessSetCatcher&) = delete;

    /// Takes over SIGCHLD. The handler reaps every child of the process, in the thread
    /// that calls this.
    ///
    /// \throws std::logic_error  "ProcessSetCatcher instance has been installed
    ///         already", in any thread: that one is not disturbed
    /// \throws SystemError  "process set catcher control pipe", "control pipe
    ///         fcntl", "sigaction"; nothing is installed, and a later install() can
    ///         succeed
    void install();

    /// Readable when children have ended since the last drain(); owned here.
    int wakeFd() const noexcept { return wake_.read.get(); }

    /// Empties wakeFd(). The set already has the children whose end made it readable.
    ///
    /// \throws SystemError  "read"
    void drain();

    /// Restores the previous SIGCHLD action; does nothing when not installed.
    ///
    /// \throws std::logic_error  "there're some child processes still running";
    ///         the catcher stays installed
    /// \throws SystemError  "restore sigaction", "close"
    void remove();

    /// Disables the handler in a process that was just forked: its children, if any, are
    /// not ours.
    static void forgetInChild() noexcept;

private:
    static void handleSigchld(int signal);
    void takeSigchld();
    void uninstall() noexcept;
    void reap() noexcept;

    ProcessSet& children_;
    PipeEnds wake_;
    struct sigaction previous_;
    bool installed_ = false;
};

} // namespace torva::process
