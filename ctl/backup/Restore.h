// Restores a backup: contents, modes, owners, times, links, attributes. Files that were not
// there are removed.
#pragma once

#include "ctl/backup/Backups.h"

namespace torva::ctl {

/// Makes the paths of a backup what its manifest says. What is right already is left
/// alone; if only mode, owner, times or attributes differ, these are set in place, which
/// works even on a full disk. All replacements are complete, next to their targets, before
/// the first is moved into place. Paths in a directory that is gone, or has become a link,
/// are left alone; all others are restored.
///
/// It may be killed at any moment and called again. It follows no links, and works through
/// descriptors in directories that another account may write.
///
/// \throws std::exception  not everything was restored; call it again
void restore(const Backups& backups, const Backup& backup);

/// Removes empty directories of the queue that did not exist when the backup was made:
/// "postfix check" creates them.
void removeQueueDirectories(const Backup& backup);

/// Moves temporary files that a killed run has left next to master.cf into the backup.
///
/// \throws std::exception
void setScratchAside(const Backups& backups, const Backup& backup);

/// Whether the host is what the backup's manifest says.
bool matchesHost(const Backup& backup);

} // namespace torva::ctl
