// Reads a file in master.cf syntax: master.cf itself, or the store of disabled
// services. What is taken for a line and for a service is MasterCfParser.cpp; the
// way back is MasterCfWriter.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <string>

namespace torva::mail::postfix {

struct MasterCfReader {
    /// Appends the lines and services of a file. The file is mapped, not copied; it
    /// is not locked.
    ///
    /// \param path    file to read
    /// \param target  new, empty content
    /// \throws PostfixConfigurationError "unable to open PATH": it cannot be opened,
    ///         is not a regular file, or cannot be mapped, as one of no bytes
    /// \throws PostfixConfigurationError "unable to parse PATH": not all of it is
    ///         master.cf syntax; the target, then only fit to be dropped, holds
    ///         what stood before that
    /// A file that somebody cuts shorter during the read ends the process with
    /// SIGBUS, as with any mapping. Who replaces the file by renaming another over
    /// it, as we do, does no harm.
    static void read(const std::string& path, MasterCfLines& target);
};

} // namespace torva::mail::postfix
