// Operations in open directories: they always affect that directory, even if its name is
// given to another in the meantime.
#pragma once

#include "torva/process/Descriptor.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace torva::ctl {

/// A directory of our own that another account could have filled.
class Untrusted : public std::runtime_error {
public:
    Untrusted(const std::string& path, std::string advice)
        : std::runtime_error(path + " is not root's alone"), advice_(std::move(advice)) {}

    const std::string& advice() const { return advice_; }

private:
    std::string advice_;
};

/// Opens a directory, unless the last component of the path is a link.
///
/// \throws SystemError "open PATH"
process::Descriptor openDirectory(const std::string& path);

/// Opens a directory of our own. Creates it with mode 0700 if it does not exist (and its
/// parents with 0755), opens it once, and checks the open directory. A wider mode becomes
/// 0700, unless others could already write.
///
/// \throws Untrusted  it is a link or a file, belongs to another user, or is writable by others
/// \throws SystemError  by errno
process::Descriptor openOwnDirectory(const std::string& path);

/// The same without creating it; closed when it does not exist.
process::Descriptor openOwnDirectoryIfThere(const std::string& path);

/// The names in a directory, sorted, without "." and "..".
///
/// \throws SystemError
std::vector<std::string> namesIn(int directory);

/// Removes a file or directory with everything below it, however deep; a missing one is no
/// error. Directories are taken from their owners first, so that these cannot create files
/// in them all the while.
///
/// \throws SystemError  something is left
void removeAll(int directory, const std::string& name);

/// Writes a file that only root may read, whole or not at all: temporary file, sync, rename.
///
/// \throws SystemError
void writeOwnFile(int directory, const std::string& name, const std::string& text);

/// Whether an errno tells what this process or the system lacks, and so nothing about a file.
bool isShortage(int code);

/// The bytes of a regular file that is not a link; empty when there is none, or it cannot be
/// read.
///
/// \throws SystemError  a shortage: it may well be there
std::string readOwnFile(int directory, const std::string& name);

} // namespace torva::ctl
