#include "ctl/backup/Snapshot.h"

#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

std::map<std::string, std::string> attributesOf(int fd) {
    std::map<std::string, std::string> attributes;
    // Not on the stack, which the walk through deep directories needs.
    std::string names(65536, '\0');
    std::string value(65536, '\0');
    const ssize_t size = ::flistxattr(fd, names.data(), names.size());
    for (ssize_t at = 0; at < size;) {
        const std::string name(names.c_str() + at);
        const ssize_t length = ::fgetxattr(fd, name.c_str(), value.data(), value.size());
        if (length >= 0) {
            attributes[name] = value.substr(0, static_cast<std::size_t>(length));
        }
        at += static_cast<ssize_t>(name.size()) + 1;
    }
    return attributes;
}

std::string linkTargetAt(int directory, const std::string& name) {
    std::string target(4096, '\0');
    const ssize_t size = ::readlinkat(directory, name.c_str(), target.data(), target.size());
    if (size < 0) {
        throwSystemError("readlink " + name, errno);
    }
    target.resize(static_cast<std::size_t>(size));
    return target;
}

Entry entryOf(const struct stat& status) {
    Entry entry;
    entry.mode = status.st_mode;
    entry.owner = status.st_uid;
    entry.group = status.st_gid;
    entry.seconds = status.st_mtim.tv_sec;
    entry.nanoseconds = status.st_mtim.tv_nsec;
    if (S_ISREG(status.st_mode)) {
        entry.size = static_cast<std::uint64_t>(status.st_size);
    } else if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) {
        entry.device = status.st_rdev;
    }
    return entry;
}

/// Whether nearly all of a huge file is holes. It costs its owner nothing, and whoever reads
/// it hours. An index of Berkeley DB has some holes.
bool isMostlyHoles(const struct stat& status) {
    constexpr off_t huge = 1 << 30;
    constexpr off_t factor = 64;
    constexpr off_t block = 512; // of st_blocks, see inode(7)
    return status.st_size > huge && status.st_size / factor > status.st_blocks * block;
}

class Walker {
public:
    explicit Walker(const Visitor& visitor) : visitor_(visitor) {}

    void visit(int directory, const std::string& name, const std::string& path) {
        // A restoration could not create it by its path.
        if (path.size() >= PATH_MAX) {
            throwSystemError("open " + path.substr(0, shownOfLongPath) + "...", ENAMETOOLONG);
        }
        struct stat status {};
        if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                throwSystemError("stat " + path, errno);
            }
            return visitAbsent(path);
        }
        if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
            return visitOpened(directory, name, path);
        }
        Entry entry = entryOf(status);
        if (entry.isLink()) {
            entry.target = linkTargetAt(directory, name);
        }
        visitor_(path, entry, -1);
    }

    void visitAbsent(const std::string& path) {
        Entry nothing;
        visitor_(path, nothing, -1);
    }

private:
    static constexpr std::size_t shownOfLongPath = 100;

    void visitOpened(int directory, const std::string& name, const std::string& path) {
        // Non-blocking: the file may have been replaced by a FIFO.
        const Descriptor file(::openat(directory, name.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat status {};
        if (!file || ::fstat(file.get(), &status) != 0) {
            throwSystemError("open " + path, errno);
        }
        if (S_ISREG(status.st_mode) && isMostlyHoles(status)) {
            throwSystemError("read " + path, EFBIG);
        }
        Entry entry = entryOf(status);
        entry.attributes = attributesOf(file.get());
        visitor_(path, entry, entry.isFile() ? file.get() : -1);
        if (entry.isDirectory()) {
            for (const std::string& below : namesIn(file.get())) {
                visit(file.get(), below, path + "/" + below);
            }
        }
    }

    const Visitor& visitor_;
};

} // namespace

bool sameContents(const Entry& left, const Entry& right) {
    return (left.mode & S_IFMT) == (right.mode & S_IFMT) && left.size == right.size &&
           left.checksum == right.checksum && left.target == right.target &&
           left.device == right.device;
}

bool sameEntry(const Entry& left, const Entry& right) {
    return sameContents(left, right) && left.mode == right.mode && left.owner == right.owner &&
           left.group == right.group && left.seconds == right.seconds &&
           left.nanoseconds == right.nanoseconds && left.attributes == right.attributes;
}

Snapshot partOf(const Snapshot& snapshot, const std::string& path) {
    Snapshot part;
    for (auto at = snapshot.lower_bound(path); at != snapshot.end(); ++at) {
        const std::string& name = at->first;
        if (name == path || name.compare(0, path.size() + 1, path + "/") == 0) {
            part.insert(*at);
        } else if (name.compare(0, path.size(), path) != 0) {
            break;
        }
    }
    return part;
}

bool sameSnapshot(const Snapshot& left, const Snapshot& right) {
    if (left.size() != right.size()) {
        return false;
    }
    for (auto one = left.begin(), other = right.begin(); one != left.end(); ++one, ++other) {
        if (one->first != other->first || !sameEntry(one->second, other->second)) {
            return false;
        }
    }
    return true;
}

void walk(const std::vector<std::string>& paths, const Visitor& visitor) {
    Walker walker(visitor);
    for (const std::string& path : paths) {
        const Descriptor parent(
            ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (parent) {
            walker.visit(parent.get(), nameOf(path), path);
        } else if (errno == ENOENT || errno == ENOTDIR) {
            walker.visitAbsent(path);
        } else {
            throwSystemError("open " + directoryOf(path), errno);
        }
    }
}

Snapshot describe(const std::vector<std::string>& paths) {
    Snapshot snapshot;
    walk(paths, [&](const std::string& path, Entry& entry, int contents) {
        if (contents != -1) {
            // No more than was there at first: it may grow as fast as it is read.
            entry.checksum = checksumOf(contents, entry.size);
        }
        snapshot[path] = entry;
    });
    return snapshot;
}

} // namespace torva::ctl
