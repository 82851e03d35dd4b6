// The directory of the lock files, "/var/lock/files". Every user may create files in its
// parent directory, so it is checked before each use. Taking a lock is
// torva/util/FileLock.h.
// Private to the library: not installed.
#pragma once

namespace torva {

extern const char lockDirectory[];

/// Creates the lock directory, with mode 0700, if it does not exist. A failure is not
/// reported here: opening the directory then fails.
void makeLockDirectory();

/// Opens the lock directory, without following a link, and checks that it belongs to the
/// effective user and is not writable by its group or by others. One that others may only
/// read or search, as an earlier version created it, gets mode 0700, and the lock files in
/// it that none of our processes has open are removed: another account may have opened
/// them before, and could hold them for ever.
///
/// \return a descriptor above 2, close-on-exec, owned by the caller; -1 with errno:
///         EPERM for a directory that belongs to another user or that others may write,
///         ENOTDIR for a link, otherwise that of open(2), fstat(2) or fchmod(2). EPERM
///         and a link are reported through report_error(), with the directory and the
///         reason.
int openLockDirectory();

} // namespace torva
