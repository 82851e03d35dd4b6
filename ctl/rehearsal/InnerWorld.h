// The world inside the private world, in which the rehearsed Postfix runs: every file system
// under a layer that takes the changes, an empty queue, an empty mail spool, its own system
// log. It consists of mounts of this process, and ends with it.
#pragma once

#include <string>

namespace torva::ctl::rehearsal {

/// Makes the mounts of this process private (it must have its own mount namespace), and
/// prepares a directory for changes.
///
/// \return path of the directory, which is hidden after replaceDevices()
/// \throws SystemError  "mount" and the path
std::string beginInnerWorld();

/// Covers every file system: changes vanish with this process or, where the kernel has no
/// overlay, cannot be made; see ctl/rehearsal/Rehearsal.h.
///
/// \param scratch  result of beginInnerWorld()
/// \throws SystemError  "mount", "stat", "mkdir", "opendir" and others, with the path;
///         the process must end then
void coverHost(const std::string& scratch);

/// Replaces Postfix's queue by an empty one: Postfix's own directories in it are empty, the
/// rest (the files of the chroot, the panel's tables) is as it was.
///
/// \throws SystemError  as coverHost()
void emptyQueue(const std::string& queueDirectory, const std::string& scratch);

/// Replaces the mail spool by an empty directory with the same mode and owner, so that a
/// delivery does not copy large mailboxes; a path that is not a directory is left alone.
///
/// \throws SystemError  as coverHost()
void emptyMailSpool(const std::string& spoolDirectory, const std::string& scratch);

/// Replaces /dev by its own file system, in which /dev/log is the given socket, and makes
/// /proc show the processes of this world. The last step: afterwards the scratch directory
/// is hidden.
///
/// \throws SystemError  as coverHost()
void replaceDevices(const std::string& logSocket, const std::string& scratch);

} // namespace torva::ctl::rehearsal
