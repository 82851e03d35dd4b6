// Whether the files in a directory can be trusted: where another account may write, a link,
// a FIFO or a second hard link may have been planted, and must be checked before use.
// Private to the library: not installed.
#pragma once

#include <string>

namespace torva {

/// Whether an account other than root and the effective user may create files in a
/// directory, or replace the directory: it, or one above it, belongs to another account or
/// is writable by its group or by others. A directory above it may be writable if it is
/// sticky, because then nobody can rename what is not theirs; the directory itself may not.
///
/// \param directory  path; links are followed; empty: the working directory
/// A directory that stat(2) fails for counts as writable.
bool writableByOthers(const std::string& directory);

/// The directory part of a path, with its final "/"; "." when there is none.
std::string directoryOf(const std::string& path);

} // namespace torva
