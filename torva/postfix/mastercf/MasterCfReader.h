// Reads a file in master.cf syntax: master.cf itself, or the store of disabled
// services. What is taken for a line and for a service is MasterCfParser.cpp; the
// way back is MasterCfWriter.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <optional>
#include <string>

namespace torva::mail::postfix {

/// Whose file is read. Opening never waits, whatever stands at the path.
enum class FileOwner {
    any, ///< whoever could write it: master.cf, which may be a symbolic link
    /// ours alone: where somebody else may write the directory or one above it,
    /// only a regular file with one name that belongs to root or to the effective
    /// user, and that neither its group nor others may write, can be opened. In a
    /// directory that is ours alone, as any.
    self
};

struct MasterCfReader {
    /// Appends the lines and services of a file. The file is parsed where it is
    /// mapped; it is not locked.
    ///
    /// \param path    file to read
    /// \param target  new, empty content
    /// \return the bytes of the file
    /// \throws PostfixConfigurationError "unable to open PATH": it cannot be opened,
    ///         is not a regular file or not of this owner, or cannot be mapped, as
    ///         one of no bytes
    /// \throws PostfixConfigurationError "unable to parse PATH": not all of it is
    ///         master.cf syntax; the target, then only fit to be dropped, holds
    ///         what stood before that
    /// A file that somebody cuts shorter during the read ends the process with
    /// SIGBUS, as with any mapping. Who replaces the file by renaming another over
    /// it, as we do, does no harm.
    static std::string read(const std::string& path, MasterCfLines& target,
                            FileOwner owner = FileOwner::any);

    /// The bytes of a file, as read() would take them; of a file of no bytes, too.
    ///
    /// \return nothing when it cannot be opened or read
    static std::optional<std::string> content(const std::string& path,
                                              FileOwner owner = FileOwner::any);
};

} // namespace torva::mail::postfix
