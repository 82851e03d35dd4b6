// Reading and replacing single files of the host. Trees of them, with all that belongs
// to them, are ctl/backup/.
#pragma once

#include <optional>
#include <string>

namespace torva::ctl {

/// Whether there is anything of this name, a link that leads nowhere included.
bool exists(const std::string& path);

/// The bytes of a regular file, links followed; nothing when there is none that can be
/// read. A FIFO or device is not opened for longer than it takes to find that out.
std::optional<std::string> readFile(const std::string& path);

/// The same for a descriptor; nothing when it is no regular file or cannot be read.
std::optional<std::string> readAll(int fd);

/// The path without any symbolic link, as realpath(1) -m prints it: what does not exist
/// is taken as it is. A path that begins with no slash begins in "/".
std::string resolved(const std::string& path);

/// The directory of a path, "/" for what stands there; and its last component.
std::string directoryOf(const std::string& path);
std::string nameOf(const std::string& path);

/// Replaces the text of a file: writes another beside it, with its mode, owner, times of
/// change and extended attributes, and renames. Other names (hard links) keep the old
/// text. A symbolic link is followed.
///
/// \throws SystemError  the file is as it was, and no other is left
void replaceText(const std::string& path, const std::string& text);

/// Gives the file `to` the mode, the owner and the extended attributes of `from`; the
/// same, the other way round, for what is about to replace it.
///
/// \throws SystemError
void copyAttributes(int from, int to);

/// Writes all bytes.
///
/// \throws SystemError "write"
void writeAll(int fd, const std::string& text);

} // namespace torva::ctl
