// Writes lines to their file: master.cf itself, or the store of disabled services. What
// is written, and when, is decided in MasterCf.h; the counterpart is MasterCfReader.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"
#include "torva/util/TmpFile.h"

#include <string>

namespace torva::mail::postfix {

/// The new text of a file, complete and on disk in a temporary file next to it, so that
/// only the rename is left. The destructor removes the temporary file.
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
    /// After an exception the temporary file is gone.
    StagedFile(const MasterCfLines& lines, const std::string& targetPath);

    /// Renames the temporary file over the target and syncs the directory. Call it once.
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
    /// file next to the target, mode 0644, fsync, rename, fsync of the directory.
    /// Readers find the whole old file or the whole new one, even after a crash. Waits
    /// while another process holds the lock of the target. When the target is a symbolic
    /// link, the link itself is replaced.
    ///
    /// \param lines       what to write
    /// \param targetPath  file to replace; need not exist
    /// \throws SystemError  "lock() failed"; as StagedFile
    /// \throws boost::filesystem::filesystem_error  as StagedFile
    /// After an exception the old file is as it was and the temporary one is gone.
    static void write(const MasterCfLines& lines, const std::string& targetPath);
};

} // namespace torva::mail::postfix
