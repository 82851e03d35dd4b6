// The locks of the companion, files in "/run/lock/torva-postfix": one for the verb that
// changes the host, one for the programs that such a verb has started.
#pragma once

#include "torva/process/Descriptor.h"

#include <stdexcept>
#include <string>

namespace torva::ctl {

/// The lock is held elsewhere.
class Locked : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Held during its lifetime: only one apply or rollback at a time.
class HostLock {
public:
    /// \param patience  how long to wait for another holder, in tenths of a second; after one
    ///        second, standard error tells for whom
    /// \throws Locked  "... is at work; nothing was done": who holds it
    /// \throws std::runtime_error  the directory cannot be trusted, see
    ///         openOwnDirectory(); SystemError
    explicit HostLock(int patience);

    /// The current holder, "process N, since DATE,"; empty: nobody.
    static std::string holder();

private:
    process::Descriptor lock_;
};

/// Held by a program that changes the host, and by its children, which inherit it: it is
/// free only when the last of them has ended, even if we were killed.
class RunLock {
public:
    /// Waits up to a minute for the children of an earlier run, and says so after a second.
    ///
    /// \throws Locked  they are still at work
    RunLock();

private:
    process::Descriptor lock_;
};

} // namespace torva::ctl
