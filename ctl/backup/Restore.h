// Restores a backup: contents, modes, owners, times, links, attributes. Files that were not
// there are removed.
#pragma once

#include "ctl/backup/Backups.h"

#include <string>
#include <vector>

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

/// Removes directories that Postfix and Debian's scripts create in the queue directory, those
/// that are empty and did not exist when the backup was made: "postfix check" creates them.
/// Other programs' directories stay.
void removeQueueDirectories(const Backup& backup);

/// How sure it is that a run has made the file next to another one, such as master.cf, with a
/// name.
enum class ScratchName {
    no,       ///< "master.cf.backup", "master.cf.221126": somebody else has
    possible, ///< "master.cf.Backup", "master.cf.preTLS": it may have
    likely,   ///< "master.cf.aB3dE6": hardly anybody would think of it
};

/// Judges a name as those that mkstemp(3) makes: that of the other file, a dot, six letters
/// and digits at random.
ScratchName judgeScratchName(const std::string& name, const std::string& other);

/// Moves temporary files that a killed run has left next to master.cf into the backup, under
/// the name "set-aside.NAME": files of root with a possible name and the access that a run
/// gives them, which have been made since the backup was. All others stay.
///
/// \return the names, without "set-aside.", of those that somebody else may have made: the
///         backup must not be removed
/// \throws std::exception
std::vector<std::string> setScratchAside(const Backups& backups, const Backup& backup);

/// Whether the host is what the backup's manifest says.
bool matchesHost(const Backup& backup);

} // namespace torva::ctl
