#include "torva/postfix/mastercf/MasterCfWriter.h"

#include "torva/libc/descriptor.h"
#include "torva/util/FileLock.h"
#include "torva/util/FilesystemError.h"
#include "torva/util/SystemError.h"
#include "torva/util/WritableByOthers.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

void writeLines(const MasterCfLines& lines, std::ostream& stream) {
    for (const std::string& line : lines.lines()) {
        // The flush makes a full disk show while errno still has its error.
        if (!(stream << line << '\n' << std::flush)) {
            throw SystemError("write");
        }
    }
}

/// Syncs a rename to disk. A failure is ignored: the new file is already in place and
/// complete on disk, and at worst a crash brings the old one back. An error would claim
/// that the old one is still there.
void syncDirectoryOf(const std::string& path) {
    const int fd =
        fd_above_standard(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

StagedFile::StagedFile(const MasterCfLines& lines, const std::string& targetPath)
    : file_(targetPath + "."), target_(targetPath) {
    file_.clear();
    writeLines(lines, file_);
    // By the descriptor: the directory of the store may belong to an account that replaces
    // our file by another. Before the commit, so that the mode is on disk when the name is.
    if (::fchmod(file_.descriptor(), 0644) != 0) {
        throw filesystemError("chmod", file_.path(), errno);
    }
    file_.commit();
    file_.setAutoclean(true);
}

// Whoever may write the directory can still swap the name before the rename. That gains
// them nothing: they could as well rename over the target afterwards. Whether the store
// can be trusted is checked when it is read.
void StagedFile::replaceTarget() {
    file_.setAutoclean(false);
    if (std::rename(file_.path().c_str(), target_.c_str()) != 0) {
        const int saved = errno;
        ::unlink(file_.path().c_str());
        errno = saved;
        throw filesystemError("rename", file_.path(), target_, saved);
    }
    syncDirectoryOf(target_);
}

void MasterCfWriter::write(const MasterCfLines& lines, const std::string& targetPath) {
    const FileLock lock(targetPath, LockMode::wait);
    StagedFile(lines, targetPath).replaceTarget();
}

} // namespace torva::mail::postfix
