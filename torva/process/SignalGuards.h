// What a running pipe changes in the signals of its process, and how it is restored:
// SIGCHLD is blocked while the set of children changes, and SIGPIPE made harmless. The
// handler of SIGCHLD is torva/process/ProcessSetCatcher.h.
// Private to the library: not installed.
#pragma once

#include <csignal>

namespace torva::process {

/// Blocks SIGCHLD during its lifetime, except between allow() and blockAgain(). See
/// sigprocmask(2).
class SigchldBlock {
public:
    /// \throws SystemError  "get sigprocmask", "sigaddset", "set sigprocmask"; the
    ///                      mask is as before
    SigchldBlock();
    /// Restores the old mask unless restore() has done so; ignores failures.
    ~SigchldBlock();
    SigchldBlock(const SigchldBlock&) = delete;
    SigchldBlock& operator=(const SigchldBlock&) = delete;

    /// The old mask.
    const sigset_t& previous() const { return previous_; }

    /// Sets the old mask, but with SIGCHLD unblocked even if it was blocked.
    ///
    /// \throws SystemError  "set sigprocmask"
    void allow();

    /// Blocks SIGCHLD again after allow(); for exception handlers.
    void blockAgain() noexcept;

    /// Restores the old mask.
    ///
    /// \throws SystemError  "restore sigprocmask"
    void restore();

private:
    sigset_t previous_;
    bool active_ = false;
};

/// Makes a write to a pipe without a reader fail with EPIPE instead of ending the process:
/// during its lifetime, SIGPIPE has an empty handler if its action was the default. Not
/// SIG_IGN, which children would inherit.
class SigpipeGuard {
public:
    /// \throws SystemError  "sigaction"; the action is as before
    SigpipeGuard();
    /// Restores the old action unless restore() has done so; ignores failures.
    ~SigpipeGuard();
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    /// Restores the old action.
    ///
    /// \throws SystemError  "restore sigaction"
    void restore();

private:
    struct sigaction previous_;
    bool active_ = false;
};

} // namespace torva::process
