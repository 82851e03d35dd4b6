// The few mounts that the inner world is made of, each one step with its failure told.
// Which of them stand where is InnerWorld.h. See mount(2).
#pragma once

#include <set>
#include <string>

namespace torva::ctl::rehearsal {

/// A tmpfs on a directory.
/// \throws SystemError  "mount DIR"
void mountTmpfs(const std::string& dir, const std::string& options);

/// Makes FROM appear at TO as well, which exists; a directory with all that is mounted
/// in it.
/// \throws SystemError  "mount TO"
void bindMount(const std::string& from, const std::string& to);

/// Makes a directory or file appear at a new path, without what is mounted in it.
/// \throws SystemError  "stat FROM", "mkdir TO", "open TO", "mount TO"
void bindAside(const std::string& from, const std::string& to);

/// Puts an overlay on a directory: what is there stays visible, changes go elsewhere.
///
/// \param low      where what is there can be reached all the time; without what is
///                 mounted below, for an overlay shows one file system
/// \param scratch  directory on a file system that takes the changes
/// \return false: the kernel stacks none here, and nothing is mounted
/// \throws SystemError  as above; "stat", "statvfs" and the path
bool coverWithOverlay(const std::string& dir, const std::string& low, const std::string& scratch);

/// Lets nothing be changed through the mount at a path, which keeps its other flags.
/// \throws SystemError  "mount PATH"
void makeReadOnly(const std::string& path);

/// Makes a directory, with its missing parents.
/// \throws SystemError  "mkdir DIR"
void makeDirectory(const std::string& dir);

/// Gives a directory the mode and the owner of another.
/// \throws SystemError  "stat", "chown" or "chmod", and the path
void copyOwnership(const std::string& from, const std::string& to);

/// Fills an empty directory with entries that lead to those of another: directories and
/// files are bound, links are copied, sockets and FIFOs are left out.
///
/// \param fresh  names of directories that become empty ones instead, of the same mode
///               and owner
/// \throws SystemError  as above; "opendir", "symlink", "open", and the path
void mirror(const std::string& from, const std::string& to, const std::set<std::string>& fresh);

} // namespace torva::ctl::rehearsal
