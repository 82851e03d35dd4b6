// Lock files that other accounts could open before the directory was closed to them. A
// descriptor stays open when modes change, and one open for reading is enough for flock(2).
// Part of torva/util/LockDirectory.h.
// Private to the library: not installed.
#pragma once

namespace torva {

/// Removes each regular file in the directory that no process of ours has open. Ours are
/// those whose real user is root or the effective user, so that a set-user-id program
/// belongs to whoever started it. A file that one of ours has open may be locked, and
/// stays. Best effort: files are removed only while /proc and the directory can be read
/// completely. Keeps errno.
///
/// \param directory  descriptor of the lock directory, not consumed
void removeUntrustedLocks(int directory);

} // namespace torva
