// Reads a file in master.cf syntax: master.cf itself, or the store of disabled services.
// The grammar is in MasterCfParser.cpp; the counterpart is MasterCfWriter.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <optional>
#include <string>

namespace torva::mail::postfix {

/// Whose file may be read. Opening never waits, whatever the path leads to.
enum class FileOwner {
    any, ///< anybody's: master.cf, which may also be a symbolic link
    /// only ours: where another account may write the directory or one above it, the
    /// file must be a regular one with a single name, must belong to root or to the
    /// effective user, and must not be writable by its group or others. In a directory
    /// that only we may write, the same as any.
    self
};

struct MasterCfReader {
    /// Appends the lines and services of a file. The file is mapped, and not locked.
    ///
    /// \param path    file to read
    /// \param target  new, empty content
    /// \return the bytes of the file
    /// \throws PostfixConfigurationError "unable to open PATH": it cannot be opened,
    ///         is not a regular file, is not of this owner, or cannot be mapped, as an
    ///         empty file
    /// \throws PostfixConfigurationError "unable to parse PATH": not all of it is in
    ///         master.cf syntax; the target holds what comes before the error and is
    ///         good only for being discarded
    /// As with any mapping, a file that is truncated during the read ends the process
    /// with SIGBUS. Replacing it by rename(2), as we do, does no harm.
    static std::string read(const std::string& path, MasterCfLines& target,
                            FileOwner owner = FileOwner::any);

    /// The bytes of a file that read() could open, or of an empty one.
    ///
    /// \return nothing when it cannot be opened or read
    static std::optional<std::string> content(const std::string& path,
                                              FileOwner owner = FileOwner::any);
};

} // namespace torva::mail::postfix
