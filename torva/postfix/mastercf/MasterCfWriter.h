// Writes a content back to its file: master.cf itself, or the store of disabled
// services. What is to be written, and whether it is, is MasterCf.h; the way there
// is MasterCfReader.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

#include <string>

namespace torva::mail::postfix {

struct MasterCfWriter {
    /// Replaces a file by the lines, each followed by a line feed: lock, temporary
    /// file beside the target, mode 0644, fsync, rename, fsync of the directory.
    /// Readers find the whole old file or the whole new one, also after a crash.
    /// Waits for as long as another process holds the lock of the target. A target
    /// that is a symbolic link is replaced itself.
    ///
    /// \param lines       what to write
    /// \param targetPath  file to replace; need not exist
    /// \throws SystemError  "lock() failed"; "mkstemp() failed: "; "write", "fsync"
    ///         or "close" of the temporary file
    /// \throws boost::filesystem::filesystem_error  "chmod" with the temporary path,
    ///         "rename" with it and the target
    /// On an exception the old file is as it was and the temporary one is gone.
    static void write(const MasterCfLines& lines, const std::string& targetPath);
};

} // namespace torva::mail::postfix
