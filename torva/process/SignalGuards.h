// What a running pipe changes in the signals of its process, each put back by its
// guard: SIGCHLD blocked while the set of children changes, and SIGPIPE harmless.
// The handler of SIGCHLD is torva/process/ProcessSetCatcher.h.
// Private to the library: not installed.
#pragma once

#include <csignal>

namespace torva::process {

/// Blocks SIGCHLD for as long as it lives, but for the time between allow() and
/// blockAgain(). See sigprocmask(2).
class SigchldBlock {
public:
    /// \throws SystemError  "get sigprocmask", "sigaddset", "set sigprocmask"; the
    ///                      mask is as before
    SigchldBlock();
    /// Puts the old mask back unless restore() has; silently.
    ~SigchldBlock();
    SigchldBlock(const SigchldBlock&) = delete;
    SigchldBlock& operator=(const SigchldBlock&) = delete;

    /// The mask as it was before.
    const sigset_t& previous() const { return previous_; }

    /// Lets SIGCHLD through, also when it was blocked before; the rest of the mask
    /// becomes the old one.
    ///
    /// \throws SystemError  "set sigprocmask"
    void allow();

    /// Blocks SIGCHLD again after allow(); for handlers that hold an exception.
    void blockAgain() noexcept;

    /// Puts the old mask back exactly.
    ///
    /// \throws SystemError  "restore sigprocmask"
    void restore();

private:
    sigset_t previous_;
    bool active_ = false;
};

/// Makes a write to a pipe without a reader fail with EPIPE where it would end the
/// process: while it lives, SIGPIPE has an empty handler if its action was the
/// default. A handler and not SIG_IGN, which children would inherit.
class SigpipeGuard {
public:
    /// \throws SystemError  "sigaction"; the action is as before
    SigpipeGuard();
    /// Puts the old action back unless restore() has; silently.
    ~SigpipeGuard();
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    /// Puts the old action back.
    ///
    /// \throws SystemError  "restore sigaction"
    void restore();

private:
    struct sigaction previous_;
    bool active_ = false;
};

} // namespace torva::process
