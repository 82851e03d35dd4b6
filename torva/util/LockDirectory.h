// The directory of the lock files, "/var/lock/files". It lies in a directory in which
// every user may make names, so it is judged before each use. Taking a lock of it is
// torva/util/FileLock.h.
// Private to the library: not installed.
#pragma once

namespace torva {

extern const char lockDirectory[];

/// Makes the lock directory, mode 0700, when it is missing. Best effort: what went
/// wrong shows when it is opened.
void makeLockDirectory();

/// Opens the lock directory itself, not what a link in its place leads to, and judges
/// it: owned by the effective user, not writable by its group or by others. One that
/// others may only read or search, as an earlier version made it, gets mode 0700, and
/// loses the lock files that none of our processes has open: somebody else may have
/// opened them meanwhile, and could hold them for ever.
///
/// \return a descriptor above 2, close-on-exec, owned by the caller; -1 with errno:
///         EPERM for a directory of somebody else or one that others may write to,
///         ENOTDIR for a link, otherwise that of open(2), fstat(2) or fchmod(2).
///         These two and the link are reported through report_error(), with the
///         directory and what is wrong with it.
int openLockDirectory();

} // namespace torva
