// The files of a lookup table, judged before postmap sees them: its source, and the
// index files beside it. postmap follows links, writes into whatever has the name of
// an index, and waits on a FIFO. For the operations of this folder only; they hold the
// table's lock.
//
// Who may write a directory (torva/util/WritableByOthers.h) decides whose links are in
// it. Where only root and we may, a link or a second hard link is the administrator's:
// it is followed, and stays (a created table replaces a link to its source). Where somebody
// else may, it is planted. A FIFO, a socket or a device is planted wherever it stands. The
// directories above are trusted to lead where they lead.
//
// What is judged by name can be swapped before postmap opens that name: no tool can be
// handed descriptors for its index files. That gap is left; here it is as narrow as it
// gets, and closed for all that we write, give away or set modes on ourselves.
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
    changed, ///< put, delete: what is in it matters
    madeAnew ///< create, rebuild, rewrite: what is in it goes anyway
};

/// The index files that the table of a source file may have.
std::vector<std::string> indexFiles(const std::string& source);

/// Takes planted index files out of postmap's way. Links and files that are not
/// regular are removed. A second hard link is removed when the index is rebuilt,
/// replaced by a copy of its own when it is changed, and left when it is only read.
///
/// \throws SystemError  a file cannot be removed, or not be copied
void settleIndexes(const std::string& source, IndexUse use);

/// Where the source file really is: administrators' links are followed, up to a file
/// or a planted link.
///
/// \throws SystemError "stat": the links lead in a circle
std::string resolvedSource(const std::string& source);

/// Makes sure that a source may be read (rebuild): a second hard link that was planted
/// is replaced by a copy of its own.
///
/// \throws PostfixConfigurationError "unable to open PATH: it may have been planted by
///         another account": a planted link, or no regular file
/// \throws SystemError  it cannot be copied
void requireOwnSource(const std::string& source);

/// Whether what stands at a path, with this lstat(2), is planted.
bool isPlanted(const std::string& path, const struct stat& status);

/// Whether a path still names the file that a descriptor is open on.
bool isNameOf(const std::string& path, int fd);

/// Writes a copy of a regular file: content, owner, permission bits, and both times.
///
/// \param path  not followed when it is a link
/// \param copy  new, in the same directory; committed
/// \return what was copied, as fstat(2) told before the first byte was read
/// \throws SystemError  "open", "read", or of the copy
struct stat copyFile(const std::string& path, TmpFile& copy);

/// Gives a temporary file, by its descriptor, an owner and permission bits.
///
/// \throws SystemError "chown" or "chmod"
void setOwnerAndMode(const TmpFile& file, uid_t owner, gid_t group, mode_t mode);

} // namespace torva::mail::postfix
