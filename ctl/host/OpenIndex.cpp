#include "ctl/host/OpenIndex.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"
#include "ctl/host/Scratch.h"
#include "torva/postfix/tables/TableFiles.h"
#include "torva/util/SystemError.h"
#include "torva/util/WritableByOthers.h"

#include <boost/algorithm/string/replace.hpp>

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

constexpr int lockPatience = 100; ///< in tenths of a second

process::Descriptor openedIndex(const std::string& path) {
    const bool isShared = writableByOthers(directoryOf(path));
    process::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC |
                                                      (isShared ? O_NOFOLLOW : 0)));
    struct stat status {};
    if (!file && errno != ELOOP) {
        throwSystemError("open " + path, errno);
    }
    const bool isTrusted = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                           !mail::postfix::isPlanted(path, status) &&
                           // A second name may just have been removed.
                           (!isShared || mail::postfix::isNameOf(path, file.get()));
    if (!isTrusted) {
        throw std::runtime_error(
            path + " is not a regular file, or may have been planted by another account");
    }
    return file;
}

/// Keeps writers out, as postmap itself does. Whoever may read a file can hold its lock.
void takeLock(const process::Descriptor& file, const std::string& path) {
    for (int turn = 0; ::flock(file.get(), LOCK_SH | LOCK_NB) != 0; ++turn) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            throwSystemError("flock " + path, errno);
        }
        if (turn == lockPatience) {
            throw LockedIndex(path + " is locked by another process (fuser " + path + ")");
        }
        ::usleep(100000);
    }
}

} // namespace

OpenIndex::OpenIndex(const std::string& path) : path_(path), file_(openedIndex(path)) {
    takeLock(file_, path);
}

std::string OpenIndex::listing() const {
    // postmap takes a name; this one leads to the open file, whatever becomes of its own.
    const ScratchDirectory scratch;
    const std::string link = scratch.path() + "/" + nameOf(path_);
    const std::string opened =
        "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(file_.get());
    // The chroot that a preview may be in has no /proc, and nobody else in it.
    const std::string& target = exists(opened) ? opened : path_;
    if (::symlink(target.c_str(), link.c_str()) != 0) {
        throwSystemError("symlink " + link, errno);
    }
    const std::string table = link.substr(0, link.rfind('.'));
    ToolResult listing = run({"/usr/sbin/postmap", "-s", "hash:" + table});
    if (!listing.succeeded()) {
        boost::algorithm::replace_all(listing.error, scratch.path(), directoryOf(path_));
        throw std::runtime_error(wordsOf(listing));
    }
    return listing.output;
}

} // namespace torva::ctl
