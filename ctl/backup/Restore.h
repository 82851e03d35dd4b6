// Putting a backup back: contents, modes, owners, times, links, attributes. What was not
// there is gone afterwards.
#pragma once

#include "ctl/backup/Backups.h"

namespace torva::ctl {

/// Brings the paths of a backup to what its manifest says. What is right already is left
/// alone; where only mode, owner, times or attributes differ, these are set in place, for
/// which a full disk has room. Everything that is new stands complete beside its place
/// before the first of them is moved there.
///
/// It may be killed at any moment and called again. It follows no link, and a directory
/// that another account may write is worked in through its descriptor.
///
/// \throws std::exception  it could not be restored whole; call it again
void restore(const Backups& backups, const Backup& backup);

/// Removes empty directories of the queue that were not there when the backup was made,
/// which "postfix check" makes.
void removeQueueDirectories(const Backup& backup);

/// Moves scratch files that a killed run has left beside master.cf into the backup.
///
/// \throws std::exception
void setScratchAside(const Backups& backups, const Backup& backup);

/// Whether the host is what the backup's manifest says.
bool matchesHost(const Backup& backup);

} // namespace torva::ctl
