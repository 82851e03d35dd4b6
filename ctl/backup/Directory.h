// Directories held open: what is done below them goes to that very directory, whatever
// becomes of its name meanwhile.
#pragma once

#include "torva/process/Descriptor.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Opens a directory, through no link in its last component.
///
/// \throws SystemError "open PATH"
process::Descriptor openDirectory(const std::string& path);

/// Opens a directory of our own: makes it with mode 0700 when it is missing (and what
/// it lies in, 0755), opens it once, and judges what was opened. A wider mode than 0700
/// is tightened, unless others could write already.
///
/// \throws std::runtime_error "PATH is not root's alone: remove it": a link or a file in
///         its place, somebody else's, or writable by others; SystemError by errno
process::Descriptor openOwnDirectory(const std::string& path);

/// The same for one that need not be there; closed when it is missing.
process::Descriptor openOwnDirectoryIfThere(const std::string& path);

/// The names in a directory, sorted, but for "." and "..".
///
/// \throws SystemError
std::vector<std::string> namesIn(int directory);

/// Removes what a name stands for, with all that is below it; nothing there is no error.
///
/// \throws SystemError  something is left
void removeAll(int directory, const std::string& name);

/// Writes a file of root's alone, whole or not at all: beside its name, synced, renamed.
///
/// \throws SystemError
void writeOwnFile(int directory, const std::string& name, const std::string& text);

/// The bytes of a regular file that is no link; empty when there is none.
std::string readOwnFile(int directory, const std::string& name);

} // namespace torva::ctl
