// The locks of the companion, files of "/run/lock/torva-postfix": one for the verb that
// changes the host, one for what such a verb has started.
#pragma once

#include "torva/process/Descriptor.h"

#include <stdexcept>
#include <string>

namespace torva::ctl {

/// Somebody else holds the lock.
class Locked : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Held for as long as it lives: one apply or rollback at a time.
class HostLock {
public:
    /// \param patience  how long to wait for another holder, in tenths of a second
    /// \throws Locked  "... is at work; nothing was done": who holds it
    /// \throws std::runtime_error  the directory is not to be trusted, see
    ///         openOwnDirectory(); SystemError
    explicit HostLock(int patience);

    /// Who holds it now, "process N, since DATE,"; empty: nobody.
    static std::string holder();

private:
    process::Descriptor lock_;
};

/// Held by a program that changes the host, and by all that this starts: they inherit
/// it, so that it is free only when the last of them has ended, whatever became of us.
class RunLock {
public:
    /// Waits up to a minute for what an earlier run has left behind.
    ///
    /// \throws std::runtime_error  it is still at work
    RunLock();

private:
    process::Descriptor lock_;
};

} // namespace torva::ctl
