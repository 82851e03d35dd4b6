// The kinds of mounts that the inner world consists of; each function reports its failure.
// InnerWorld.h uses them. See mount(2).
#pragma once

#include <set>
#include <string>

namespace torva::ctl::rehearsal {

/// Mounts a tmpfs on a directory.
/// \throws SystemError  "mount DIR"
void mountTmpfs(const std::string& dir, const std::string& options);

/// Makes FROM also appear at TO, which exists; a directory with everything mounted in it.
/// \throws SystemError  "mount TO"
void bindMount(const std::string& from, const std::string& to);

/// Makes a directory or file also appear at a new path, without anything mounted in it.
/// \throws SystemError  "stat FROM", "mkdir TO", "open TO", "mount TO"
void bindAside(const std::string& from, const std::string& to);

/// Mounts an overlay on a directory: its contents stay visible, changes go elsewhere.
///
/// \param low      another path of the contents, without mounts in it, because an overlay
///                 shows one file system
/// \param scratch  directory on a file system that takes the changes
/// \return false: the kernel cannot mount one here, and nothing is mounted
/// \throws SystemError  as above; "stat", "statvfs" and the path
bool coverWithOverlay(const std::string& dir, const std::string& low, const std::string& scratch);

/// Makes the mount at a path read-only; it keeps its other flags.
/// \throws SystemError  "mount PATH"
void makeReadOnly(const std::string& path);

/// Creates a directory with its missing parents.
/// \throws SystemError  "mkdir DIR"
void makeDirectory(const std::string& dir);

/// Gives a directory the mode and the owner of another.
/// \throws SystemError  "stat", "chown" or "chmod", and the path
void copyOwnership(const std::string& from, const std::string& to);

/// Fills an empty directory with the entries of another: directories and files are bind
/// mounts, links are copied, sockets and FIFOs are left out.
///
/// \param fresh  names of directories that become empty ones instead, with the same mode
///               and owner
/// \throws SystemError  as above; "opendir", "symlink", "open", and the path
void mirror(const std::string& from, const std::string& to, const std::set<std::string>& fresh);

} // namespace torva::ctl::rehearsal
