// Lists an index of a panel's table as it is. The directory of these tables belongs to the
// account "postfix" once there is a mail-authentication database, and customers may read
// them before: neither can make us wait, or read another file in place of the index.
#pragma once

#include "torva/process/Descriptor.h"

#include <stdexcept>
#include <string>

namespace torva::ctl {

/// Another process holds the lock of an index.
class LockedIndex : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class OpenIndex {
public:
    /// Opens an index and takes Postfix's lock on it, shared, until the destruction.
    ///
    /// \throws std::runtime_error  it is not a regular file, or may have been planted by
    ///         another account (see torva/postfix/tables/TableFiles.h)
    /// \throws LockedIndex  it is locked by another process, and still is after ten seconds
    /// \throws SystemError "open PATH"
    explicit OpenIndex(const std::string& path);

    /// What "postmap -s" prints of exactly this file.
    ///
    /// \throws std::runtime_error  what postmap says
    std::string listing() const;

private:
    std::string path_;
    process::Descriptor file_;
};

} // namespace torva::ctl
