// Reads and replaces single files of the host. Directory trees are ctl/backup/.
#pragma once

#include <optional>
#include <string>

namespace torva::ctl {

/// Whether the path exists, even as a dangling link.
bool exists(const std::string& path);

/// The bytes of a regular file, following links; nothing when there is none that can be
/// read. Does not block on a FIFO or device.
std::optional<std::string> readFile(const std::string& path);

/// The same for a descriptor; nothing when it is not a regular file or cannot be read.
std::optional<std::string> readAll(int fd);

/// The path without symbolic links, as realpath(1) -m prints it: components that do not
/// exist are kept. A relative path is taken as relative to "/".
std::string resolved(const std::string& path);

/// Whether a path is that of a directory, or of something below it. Both as they are
/// written: nothing is resolved. No path is below "".
bool isAtOrBelow(const std::string& path, const std::string& directory);

/// The directory of a path, "/" for files in it; and the last component.
std::string directoryOf(const std::string& path);
std::string nameOf(const std::string& path);

/// Replaces the text of a file: writes a temporary file with its mode, owner, times and
/// extended attributes, and renames it. Other hard links keep the old text. A symbolic link
/// is followed.
///
/// \throws SystemError  the file is unchanged, and no other is left
void replaceText(const std::string& path, const std::string& text);

/// Gives the file `to` the mode, the owner and the extended attributes of `from`.
///
/// \throws SystemError
void copyAttributes(int from, int to);

/// Writes all bytes.
///
/// \throws SystemError "write"
void writeAll(int fd, const std::string& text);

} // namespace torva::ctl
