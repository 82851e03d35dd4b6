#include "ctl/backup/Lock.h"

#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "ctl/host/Program.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

const char directoryPath[] = "/run/lock/torva-postfix";
constexpr int second = 10;  ///< in tenths of a second
constexpr int minute = 600; ///< in tenths of a second
const char earlierRun[] = "what an earlier run has started";

/// The directory is root's alone now, but somebody else may have made it, with files in it.
bool isOwn(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid() &&
           status.st_nlink == 1;
}

/// \param extra  O_CLOEXEC, or 0 for a lock that children inherit
Descriptor openLockFile(const char* name, int extra) {
    const Descriptor directory = openOwnDirectory(directoryPath);
    Descriptor file(
        ::openat(directory.get(), name, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | extra, 0600));
    if (!file) {
        throwSystemError(std::string("open ") + directoryPath + "/" + name, errno);
    }
    if (!isOwn(file.get())) {
        throw std::runtime_error(std::string(directoryPath) + "/" + name +
                                 " is not root's own file: remove it");
    }
    return file;
}

/// \param whom  tells for whom it waits
/// \return whether it was taken in time
bool take(const Descriptor& file, int patience, const std::function<std::string()>& whom) {
    for (int waited = 0; ::flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++waited) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            throwSystemError("flock", errno);
        }
        if (waited == patience) {
            return false;
        }
        if (waited == second) {
            announceWait(whom());
        }
        ::usleep(100000);
    }
    return true;
}

std::string heldBy(const Descriptor& file) {
    ::lseek(file.get(), 0, SEEK_SET);
    const std::string text = readAll(file.get()).value_or("");
    return text.empty() ? "another process" : text.substr(0, text.find('\n'));
}

std::string ownMark() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::localtime_r(&now, &parts);
    char date[32];
    std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &parts);
    return "process " + std::to_string(::getpid()) + ", since " + date + ",\n";
}

} // namespace

HostLock::HostLock(int patience) : lock_(openLockFile("lock", O_CLOEXEC)) {
    if (!take(lock_, patience, [this] { return heldBy(lock_); })) {
        throw Locked(heldBy(lock_) + " is at work; nothing was done");
    }
    if (::ftruncate(lock_.get(), 0) != 0) {
        throwSystemError("ftruncate", errno);
    }
    try {
        writeAll(lock_.get(), ownMark());
    } catch (const SystemError&) { // NOLINT(bugprone-empty-catch)
        // Where there is no room for the mark, others are told less.
    }
}

std::string HostLock::holder() {
    const Descriptor directory = openOwnDirectoryIfThere(directoryPath);
    if (!directory) {
        return std::string();
    }
    const Descriptor file(
        ::openat(directory.get(), "lock", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file || !isOwn(file.get()) || ::flock(file.get(), LOCK_SH | LOCK_NB) == 0) {
        return std::string();
    }
    return heldBy(file);
}

RunLock::RunLock() : lock_(openLockFile("run", 0)) {
    if (!take(lock_, minute, [] { return earlierRun; })) {
        throw Locked(std::string(earlierRun) + " is still at work; nothing was done");
    }
}

} // namespace torva::ctl
