// Lock files that others could open before their directory was closed to them. A
// descriptor outlives the change of a mode, and flock(2) asks for no more than one
// that reads. Part of torva/util/LockDirectory.h.
// Private to the library: not installed.
#pragma once

namespace torva {

/// Removes each regular file of the directory that no process of ours has open: one
/// whose real user is root or the effective user, a set-user-id program that somebody
/// else has started being theirs. A file that one of ours has open stays, for it may be
/// locked. Best effort: where /proc or the directory cannot be read whole, nothing is
/// removed. Keeps errno.
///
/// \param directory  descriptor of the lock directory, not consumed
void removeUntrustedLocks(int directory);

} // namespace torva
