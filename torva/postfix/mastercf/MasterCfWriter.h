// Writes a content back to its file: master.cf itself, or the store of disabled
// services. What is to be written, and whether it is, is MasterCf.h; the way there
// is MasterCfReader.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"
#include "torva/util/TmpFile.h"

#include <string>

namespace torva::mail::postfix {

/// The new text of a file, whole and on disk in a temporary file beside it, so that
/// nothing but the rename is left. The temporary file goes with the object.
class StagedFile {
public:
    /// Writes the lines, each followed by a line feed, with mode 0644. The caller
    /// holds the lock of the target.
    ///
    /// \param lines       what to write
    /// \param targetPath  file to replace; need not exist
    /// \throws SystemError  "mkstemp() failed: "; "write", "fsync" or "close" of the
    ///         temporary file
    /// \throws boost::filesystem::filesystem_error  "chmod" with the temporary path
    /// On an exception the temporary file is gone.
    StagedFile(const MasterCfLines& lines, const std::string& targetPath);

    /// Renames the temporary file over the target, and brings that to disk. Once.
    ///
    /// \throws boost::filesystem::filesystem_error  "rename" with the temporary path
    ///         and the target; the temporary file is gone then
    void replaceTarget();

private:
    TmpFile file_;
    std::string target_;
};

struct MasterCfWriter {
    /// Replaces a file by the lines, each followed by a line feed: lock, temporary
    /// file beside the target, mode 0644, fsync, rename, fsync of the directory.
    /// Readers find the whole old file or the whole new one, also after a crash.
    /// Waits for as long as another process holds the lock of the target. A target
    /// that is a symbolic link is replaced itself.
    ///
    /// \param lines       what to write
    /// \param targetPath  file to replace; need not exist
    /// \throws SystemError  "lock() failed"; as StagedFile
    /// \throws boost::filesystem::filesystem_error  as StagedFile
    /// On an exception the old file is as it was and the temporary one is gone.
    static void write(const MasterCfLines& lines, const std::string& targetPath);
};

} // namespace torva::mail::postfix
