// Checks the files of a lookup table, its source and the index files next to it, before
// postmap opens them: it follows links, writes to any file that has the name of an index,
// and blocks on a FIFO. For the operations in this folder only; they hold the table's lock.
//
// Whose links are in a directory depends on who may write it (torva/util/WritableByOthers.h).
// Where only root and we may, a link or a second hard link is the administrator's: it is
// followed, and stays (only creating a table replaces a link to its source). Where another
// account may, it is planted. A FIFO, a socket or a device is planted in any directory. The
// directories above are trusted.
//
// A file that was checked by name can be swapped before postmap opens that name, because
// postmap takes no descriptors for its index files. This race remains, as short as it can
// be. It does not exist for files that we write, chown or chmod ourselves.
// Private to the library: not installed.
#pragma once

#include "torva/util/TmpFile.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace torva::mail::postfix {

/// What a postmap is about to do with the index files.
enum class IndexUse {
    read,    ///< dump
    changed, ///< put, delete: its records stay
    rebuilt  ///< create, rebuild, rewrite: its records go
};

/// The index files that the table of a source file may have.
std::vector<std::string> indexFiles(const std::string& source);

/// Removes or replaces planted index files. Links, FIFOs, sockets and devices are removed.
/// A second hard link is removed when the index is rebuilt, replaced by a separate copy
/// when it is changed, and left alone when it is only read.
///
/// \throws SystemError  a file cannot be removed or copied
void settleIndexes(const std::string& source, IndexUse use);

/// The path of the source file itself: administrators' links are followed, up to a file
/// or a planted link.
///
/// \throws SystemError "stat": the links form a loop
std::string resolvedSource(const std::string& source);

/// Makes sure that a source may be read (rebuild): a planted second hard link is replaced
/// by a separate copy.
///
/// \throws PostfixConfigurationError "unable to open PATH: it may have been planted by
///         another account": a planted link, a FIFO, a socket or a device
/// \throws SystemError  it cannot be copied
void requireOwnSource(const std::string& source);

/// Whether the file at a path, with this lstat(2), is planted.
bool isPlanted(const std::string& path, const struct stat& status);

/// Whether a path still names the file that a descriptor is open on.
bool isNameOf(const std::string& path, int fd);

/// Copies a regular file: contents, holes, owner, permission bits, extended attributes, and
/// both times.
///
/// \param path  not followed when it is a link
/// \param copy  new, in the same directory; committed
/// \return the fstat(2) of the file before the first byte was read
/// \throws SystemError  "open", "read", or an error of the copy
struct stat copyFile(const std::string& path, TmpFile& copy);

/// Copies contents, holes, extended attributes and both times of an open regular file; not
/// owner and mode.
///
/// \param file    open for reading, at its first byte
/// \param status  its fstat(2)
/// \param copy    new; not committed
/// \throws SystemError  "read", "write", or "utimensat"
void copyOpenFile(int file, const struct stat& status, TmpFile& copy);

/// Sets the owner and the permission bits of a temporary file, by its descriptor.
///
/// \throws SystemError "chown" or "chmod"
void setOwnerAndMode(const TmpFile& file, uid_t owner, gid_t group, mode_t mode);

} // namespace torva::mail::postfix
