// Whose files stand in a directory: where another account may write, a link, a FIFO
// or a second hard link may have been planted, and is to be judged before use.
// Private to the library: not installed.
#pragma once

#include <string>

namespace torva {

/// Whether an account other than root and the effective user may put names into a
/// directory, or put another directory in its place: it, or one above it, belongs to
/// somebody else or is writable for its group or for others. A sticky directory
/// above it does no harm (nobody can move what is not his), the directory itself
/// must not even be sticky.
///
/// \param directory  path; links are followed; empty: the working directory
/// A directory that cannot be looked at counts as writable.
bool writableByOthers(const std::string& directory);

/// The directory in which a path has its last component.
std::string directoryOf(const std::string& path);

} // namespace torva
