#include "torva/postfix/tables/TableFiles.h"

#include "torva/libc/descriptor.h"
#include "torva/process/Descriptor.h"
#include "torva/util/ExtendedAttributes.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/WritableByOthers.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace torva::mail::postfix {

namespace {

const char* const indexSuffixes[] = {".db", ".cdb", ".lmdb", ".dir", ".pag"};

/// Whether a file of any kind exists at a path; its status then.
bool look(const std::string& path, struct stat& status) {
    if (::lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throw SystemError("stat");
    }
    return false;
}

void remove(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw SystemError("unlink");
    }
}

/// Replaces a file that has other hard links by a copy.
void unshare(const std::string& path) {
    TmpFile copy(path + ".");
    copyFile(path, copy);
    if (std::rename(copy.path().c_str(), path.c_str()) != 0) {
        throw SystemError("rename");
    }
    copy.setAutoclean(false);
    // The owner of the directory can swap the copy right before it is renamed.
    struct stat status = {};
    if (!look(path, status) || isPlanted(path, status)) {
        throw SystemError("rename", EEXIST);
    }
}

void settleIndex(const std::string& path, IndexUse use) {
    struct stat status = {};
    if (!look(path, status) || !isPlanted(path, status)) {
        return;
    }
    if (!S_ISREG(status.st_mode) || use == IndexUse::rebuilt) {
        remove(path);
    } else if (use == IndexUse::changed) {
        unshare(path);
    }
}

/// Moves to the first byte at or after an offset that is not in a hole.
///
/// \return its offset; the size when there is none
off_t moveToData(int fd, off_t offset, off_t size) {
    const off_t data = ::lseek(fd, offset, SEEK_DATA);
    if (data == -1) {
        return errno == ENXIO ? size : offset; // not every file system has holes
    }
    return data;
}

/// Holes stay holes, and no more is copied than was there at first: otherwise, the owner of
/// the directory could have us fill the disk by a file that takes no room there.
void copyContents(int from, off_t size, TmpFile& copy) {
    char piece[65536];
    off_t at = 0;
    off_t end = 0; // of what has been written
    while ((at = moveToData(from, at, size)) < size) {
        const auto left = static_cast<std::size_t>(size - at);
        const ssize_t got = ::read(from, piece, std::min(left, sizeof(piece)));
        if (got == 0) {
            size = at; // it has become shorter
        } else if (got == -1 && errno != EINTR) {
            throw SystemError("read");
        } else if (got > 0) {
            if (at != end) {
                copy.seekp(at);
            }
            copy.write(piece, got);
            at += got;
            end = at;
        }
    }
    copy.flush(); // a later write would change the times
    if (size > end && ::ftruncate(copy.descriptor(), size) != 0) {
        throw SystemError("write");
    }
}

/// The target of a symbolic link, relative to the working directory or absolute.
std::string targetOf(const std::string& link) {
    char target[PATH_MAX];
    const ssize_t size = ::readlink(link.c_str(), target, sizeof(target));
    if (size == -1) {
        throw SystemError("stat");
    }
    const std::string text(target, static_cast<std::size_t>(size));
    return text.front() == '/' ? text : directoryOf(link) + "/" + text;
}

} // namespace

std::vector<std::string> indexFiles(const std::string& source) {
    std::vector<std::string> files;
    for (const char* suffix : indexSuffixes) {
        files.push_back(source + suffix);
    }
    return files;
}

bool isPlanted(const std::string& path, const struct stat& status) {
    const bool link = S_ISLNK(status.st_mode);
    // Directories are harmless: postmap refuses them itself.
    if (!S_ISREG(status.st_mode) && !link) {
        return !S_ISDIR(status.st_mode);
    }
    return (link || status.st_nlink > 1) && writableByOthers(directoryOf(path));
}

bool isNameOf(const std::string& path, int fd) {
    struct stat named = {};
    struct stat held = {};
    return ::lstat(path.c_str(), &named) == 0 && ::fstat(fd, &held) == 0 &&
           named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

void settleIndexes(const std::string& source, IndexUse use) {
    for (const std::string& index : indexFiles(source)) {
        settleIndex(index, use);
    }
}

std::string resolvedSource(const std::string& source) {
    std::string path = source;
    constexpr int mostLinks = 40; // as many as the kernel follows
    for (int links = 0; links <= mostLinks; ++links) {
        struct stat status = {};
        if (!look(path, status) || !S_ISLNK(status.st_mode) || isPlanted(path, status)) {
            return path;
        }
        path = targetOf(path);
    }
    throw SystemError("stat", ELOOP);
}

void requireOwnSource(const std::string& source) {
    const std::string path = resolvedSource(source);
    struct stat status = {};
    if (!look(path, status) || !isPlanted(path, status)) {
        return;
    }
    // The target of a link is not copied: those who may read the table need not be
    // allowed to read it.
    if (!S_ISREG(status.st_mode)) {
        throw PostfixConfigurationError("unable to open " + path +
                                        ": it may have been planted by another account");
    }
    unshare(path);
}

void setOwnerAndMode(const TmpFile& file, uid_t owner, gid_t group, mode_t mode) {
    if (::fchown(file.descriptor(), owner, group) != 0) {
        throw SystemError("chown");
    }
    if (::fchmod(file.descriptor(), mode & 0777) != 0) {
        throw SystemError("chmod");
    }
}

void copyOpenFile(int file, const struct stat& status, TmpFile& copy) {
    copyContents(file, status.st_size, copy);
    copyExtendedAttributes(file, copy.descriptor());
    const timespec times[2] = {status.st_atim, status.st_mtim};
    if (::futimens(copy.descriptor(), times) != 0) {
        throw SystemError("utimensat");
    }
}

struct stat copyFile(const std::string& path, TmpFile& copy) {
    const process::Descriptor file(fd_above_standard(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        throw SystemError("open");
    }
    if (!S_ISREG(status.st_mode)) {
        throw SystemError("open", EINVAL);
    }
    copyOpenFile(file.get(), status, copy);
    setOwnerAndMode(copy, status.st_uid, status.st_gid, status.st_mode);
    copy.commit();
    copy.setAutoclean(true);
    return status;
}

} // namespace torva::mail::postfix
