// Learns of the end of children: a set of them, and the one SIGCHLD handler of the
// process that reaps them and wakes whoever waits in select(2). Waiting for a
// single child without a handler is waitForExit() in torva/process/Launch.h.
//
// Threads: one thread of the process uses a set with its catcher, from install() until
// it is removed, and does not end before that. Other threads may run, take SIGCHLD or
// have it blocked: their handler hands the signal to that thread. A child that any of
// them starts is reaped, too, and its status is lost to them.
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

/// Children in the order of adding. SIGCHLD has to be blocked around every change
/// while a catcher is installed, or its handler finds the set half changed.
class ProcessSet {
public:
    /// \param capacity  how many children can be added
    explicit ProcessSet(std::size_t capacity);

    /// Enters a running child. Cannot fail within the capacity: a child that could
    /// not be entered any more would be nobody's.
    void add(pid_t pid) noexcept;

    /// Stores how a child has ended. Safe in a signal handler.
    ///
    /// \return false: no such child runs in the set
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

/// Watches a set. The sequence: block SIGCHLD, install(), add the children, let
/// SIGCHLD through; select(2) on wakeFd(), then drain(); remove().
class ProcessSetCatcher {
public:
    /// \param children  the set, which has to outlive the catcher
    explicit ProcessSetCatcher(ProcessSet& children);
    /// Removes silently, whatever still runs; for the ways out by exception.
    ~ProcessSetCatcher();
    ProcessSetCatcher(const ProcessSetCatcher&) = delete;
    ProcessSetCatcher& operator=(const ProcessSetCatcher&) = delete;

    /// Takes SIGCHLD over. The handler reaps every child of the process, in the calling
    /// thread.
    ///
    /// \throws std::logic_error  "ProcessSetCatcher instance has been installed
    ///         already", by whatever thread: that one goes on undisturbed
    /// \throws SystemError  "process set catcher control pipe", "control pipe
    ///         fcntl", "sigaction"; nothing is installed then, and this catcher or
    ///         another can be
    void install();

    /// Readable when children have ended since the last drain(); owned here.
    int wakeFd() const noexcept { return wake_.read.get(); }

    /// Takes what made wakeFd() readable; the ends are in the set before that.
    ///
    /// \throws SystemError  "read"
    void drain();

    /// Puts the previous SIGCHLD action back; does nothing when not installed.
    ///
    /// \throws std::logic_error  "there're some child processes still running";
    ///         the catcher goes on
    /// \throws SystemError  "restore sigaction", "close"
    void remove();

    /// Makes the handler do nothing in a process that was just forked off: its
    /// children, if any, are none of ours.
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
