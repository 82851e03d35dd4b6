// The world inside the private world, in which the rehearsed Postfix lives: every file
// system behind a layer that takes the changes, an empty queue, an empty mail spool, a
// system log of its own. All of it is this process's mounts, and goes with it.
#pragma once

#include <string>

namespace torva::ctl::rehearsal {

/// Keeps the mounts of this process, which must have a mount namespace of its own, to
/// itself, and prepares a directory for what is to change.
///
/// \return path of the directory, which is out of sight after replaceDevices()
/// \throws SystemError  "mount" and the path
std::string beginInnerWorld();

/// Covers every file system: changes vanish with this process, or, where the kernel
/// stacks no layer, cannot be made; see ctl/rehearsal/Rehearsal.h.
///
/// \param scratch  what beginInnerWorld() gave
/// \throws SystemError  "mount", "stat", "mkdir", "opendir" and others, with the path;
///         the process must end then
void coverHost(const std::string& scratch);

/// Puts an empty queue in place of Postfix's: what is Postfix's own in it is there as
/// empty directories, the rest (the chroot's files, the panel's tables) as it was.
///
/// \throws SystemError  as coverHost()
void emptyQueue(const std::string& queueDirectory, const std::string& scratch);

/// Puts an empty directory of the same mode and owner in place of the mail spool, so
/// that a delivery copies no mailbox of any size; a path that is none stays as it is.
///
/// \throws SystemError  as coverHost()
void emptyMailSpool(const std::string& spoolDirectory, const std::string& scratch);

/// Puts a file system of its own in place of /dev, in which /dev/log is the socket at a
/// path, and /proc shows the processes of this world. The last step: the scratch
/// directory is out of sight afterwards.
///
/// \throws SystemError  as coverHost()
void replaceDevices(const std::string& logSocket, const std::string& scratch);

} // namespace torva::ctl::rehearsal
