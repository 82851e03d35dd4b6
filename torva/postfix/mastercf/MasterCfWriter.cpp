#include "torva/postfix/mastercf/MasterCfWriter.h"

#include "torva/util/FileLock.h"
#include "torva/util/SystemError.h"
#include "torva/util/TmpFile.h"

#include <boost/filesystem.hpp>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

using boost::filesystem::filesystem_error;

boost::system::error_code systemError(int code) {
    return {code, boost::system::system_category()};
}

void writeLines(const MasterCfLines& lines, std::ostream& stream) {
    for (const std::string& line : lines.lines()) {
        // The flush brings a full disk to light while errno still tells of it.
        if (!(stream << line << '\n' << std::flush)) {
            throw SystemError("write");
        }
    }
}

/// Renames the temporary file, which nobody else removes any more.
void renameOver(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) == 0) {
        return;
    }
    const int saved = errno;
    ::unlink(from.c_str());
    errno = saved;
    throw filesystem_error("rename", from, to, systemError(saved));
}

/// Brings a rename to disk. Nobody hears of a failure: the new file is in place
/// already, whole and on disk, and at worst a crash brings the old one back; an
/// error would claim that the old one is still there.
void syncDirectoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

void MasterCfWriter::write(const MasterCfLines& lines, const std::string& targetPath) {
    const FileLock lock(targetPath, LockMode::wait);
    TmpFile file(targetPath + ".");
    file.clear();
    writeLines(lines, file);
    // Before the commit, so that the mode is on disk when the name is.
    if (::chmod(file.path().c_str(), 0644) != 0) {
        throw filesystem_error("chmod", file.path(), systemError(errno));
    }
    file.commit();
    renameOver(file.path(), targetPath);
    syncDirectoryOf(targetPath);
}

} // namespace torva::mail::postfix
