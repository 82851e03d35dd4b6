#include "ctl/backup/Replacement.h"

#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/xattr.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

const char newSuffix[] = ".torva-new";
const char oldSuffix[] = ".torva-old";

void require(int result, const std::string& operation) {
    if (result != 0) {
        throwSystemError(operation, errno);
    }
}

void setTimes(int fd, const Entry& entry, const std::string& path) {
    const timespec changed{entry.seconds, static_cast<long>(entry.nanoseconds)};
    const timespec times[2] = {{0, UTIME_OMIT}, changed};
    require(::utimensat(fd, "", times, AT_EMPTY_PATH), "utimensat " + path);
}

void setAttributes(int fd, const Entry& entry, const std::string& path) {
    char names[65536];
    const ssize_t size = ::flistxattr(fd, names, sizeof(names));
    for (ssize_t at = 0; at < size;) {
        const std::string name(names + at);
        at += static_cast<ssize_t>(name.size()) + 1;
        if (entry.attributes.count(name) == 0) {
            require(::fremovexattr(fd, name.c_str()), "fremovexattr " + path);
        }
    }
    for (const auto& [name, value] : entry.attributes) {
        require(::fsetxattr(fd, name.c_str(), value.data(), value.size(), 0), "fsetxattr " + path);
    }
}

/// Mode, owner, attributes, times of an open file or directory.
void setMetadata(int fd, const Entry& entry, const std::string& path) {
    // The owner first: giving a file away clears special mode bits. The times last:
    // everything else may change them.
    require(::fchown(fd, entry.owner, entry.group), "fchown " + path);
    require(::fchmod(fd, entry.mode & 07777), "fchmod " + path);
    setAttributes(fd, entry, path);
    const timespec changed{entry.seconds, static_cast<long>(entry.nanoseconds)};
    const timespec times[2] = {{0, UTIME_OMIT}, changed};
    require(::futimens(fd, times), "futimens " + path);
}

/// Owner and times of a link or node, by an O_PATH descriptor.
void setMetadataOfNode(int directory, const std::string& name, const Entry& entry) {
    const Descriptor node(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!node || ::fstat(node.get(), &status) != 0) {
        throwSystemError("open " + name, errno);
    }
    if ((status.st_mode & S_IFMT) != (entry.mode & S_IFMT)) {
        throw std::runtime_error(name + " was changed by somebody else");
    }
    require(::fchownat(node.get(), "", entry.owner, entry.group, AT_EMPTY_PATH), "chown " + name);
    setTimes(node.get(), entry, name);
}

/// Creates a link or a node with its mode.
void makeNode(int directory, const std::string& name, const Entry& entry) {
    if (entry.isLink()) {
        require(::symlinkat(entry.target.c_str(), directory, name.c_str()), "symlink " + name);
        return;
    }
    const mode_t mask = ::umask(0);
    const int result = ::mknodat(directory, name.c_str(), entry.mode, entry.device);
    const int code = errno;
    ::umask(mask);
    errno = code;
    require(result, "mknod " + name);
}

Descriptor makeFile(int directory, const std::string& name) {
    Descriptor file(::openat(directory, name.c_str(),
                             O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        throwSystemError("open " + name, errno);
    }
    return file;
}

Descriptor makeDirectory(int directory, const std::string& name) {
    require(::mkdirat(directory, name.c_str(), 0700), "mkdir " + name);
    Descriptor made(
        ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!made || ::fstat(made.get(), &status) != 0) {
        throwSystemError("open " + name, errno);
    }
    // Where others may write, it may have been replaced.
    if (status.st_uid != ::geteuid() || (status.st_mode & 0077) != 0) {
        throw std::runtime_error(name + " was changed by somebody else");
    }
    return made;
}

Descriptor reopened(int directory, const std::string& name, const Entry& entry) {
    const int flags = entry.isDirectory() ? O_RDONLY | O_DIRECTORY : O_RDWR;
    Descriptor file(::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    if (!file) {
        throwSystemError("open " + name, errno);
    }
    return file;
}

bool isTrusted(int directory) {
    struct stat status {};
    return ::fstat(directory, &status) == 0 && status.st_uid == ::geteuid() &&
           (status.st_mode & 0022) == 0;
}

} // namespace

bool correctInPlace(const std::string& path, const Entry& now, const Entry& wanted) {
    if (!now.isFile() || !sameContents(now, wanted)) {
        return false;
    }
    const Descriptor parent = openDirectory(directoryOf(path));
    const Descriptor file(::openat(parent.get(), nameOf(path).c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    // With another hard link, the change would affect that, too, and in a directory of
    // others this may now be somebody else's file.
    if (!isTrusted(parent.get()) || !file || ::fstat(file.get(), &status) != 0 ||
        !S_ISREG(status.st_mode) || status.st_nlink != 1) {
        return false;
    }
    setMetadata(file.get(), wanted, path);
    return true;
}

void removeReplacement(const std::string& path) {
    const Descriptor parent(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent) {
        removeAll(parent.get(), nameOf(path) + newSuffix);
        removeAll(parent.get(), nameOf(path) + oldSuffix);
    }
}

Replacement::Replacement(const std::string& path, const Snapshot& wanted)
    : path_(path),
      wanted_(wanted),
      parent_(openDirectory(directoryOf(path))),
      name_(nameOf(path)),
      newName_(name_ + newSuffix) {
    for (const auto& [one, entry] : wanted_) {
        if (one == path_) {
            makeTop(entry);
        } else {
            makeInside(inside(one), entry);
        }
    }
}

Replacement::~Replacement() {
    try {
        removeAll(parent_.get(), newName_);
    } catch (const std::exception&) {
        // The next restoration removes it.
    }
}

std::string Replacement::inside(const std::string& path) const {
    return path.substr(path_.size() + 1);
}

void Replacement::makeTop(const Entry& entry) {
    if (entry.isDirectory()) {
        top_ = makeDirectory(parent_.get(), newName_);
    } else if (entry.isFile()) {
        top_ = makeFile(parent_.get(), newName_);
    } else if (entry.isThere()) {
        makeNode(parent_.get(), newName_, entry);
    }
}

void Replacement::makeInside(const std::string& path, const Entry& entry) {
    if (entry.isDirectory()) {
        require(::mkdirat(top_.get(), path.c_str(), 0700), "mkdir " + path);
    } else if (entry.isFile()) {
        makeFile(top_.get(), path).release();
    } else {
        makeNode(top_.get(), path, entry);
    }
}

bool Replacement::holds(const std::string& path) const {
    const auto found = wanted_.find(path);
    return found != wanted_.end() && found->second.isFile();
}

ContentsConsumer Replacement::contentsOf(const std::string& path) {
    if (!checksums_.emplace(path, std::string()).second) {
        throw std::runtime_error("the archive has " + path + " twice");
    }
    const Entry& entry = wanted_.at(path);
    const auto file = std::make_shared<Descriptor>();
    if (path != path_) {
        *file = reopened(top_.get(), inside(path), entry);
    }
    const int fd = path == path_ ? top_.get() : file->get();
    const auto sum = std::make_shared<Checksum>();
    return [this, path, file, fd, sum](const char* bytes, std::size_t size) {
        writeAll(fd, std::string(bytes, size));
        sum->add(bytes, size);
        if (size == 0) {
            require(::fsync(fd), "fsync");
            checksums_[path] = sum->result();
        }
    };
}

void Replacement::requireContents() const {
    for (const auto& [path, entry] : wanted_) {
        const auto given = checksums_.find(path);
        if (entry.isFile() && (given == checksums_.end() || given->second != entry.checksum)) {
            throw std::runtime_error("the archive does not have the contents of " + path);
        }
    }
}

void Replacement::complete() {
    requireContents();
    for (auto one = wanted_.rbegin(); one != wanted_.rend(); ++one) {
        if (one->second.isThere()) {
            completeOne(one->first, one->second);
        }
    }
}

void Replacement::completeOne(const std::string& path, const Entry& entry) {
    const bool isNode = !entry.isFile() && !entry.isDirectory();
    if (path == path_ && isNode) {
        setMetadataOfNode(parent_.get(), newName_, entry);
    } else if (isNode) {
        setMetadataOfNode(top_.get(), inside(path), entry);
    } else if (path == path_) {
        setMetadata(top_.get(), entry, path);
    } else {
        setMetadata(reopened(top_.get(), inside(path), entry).get(), entry, path);
    }
}

void Replacement::moveIntoPlace() {
    const bool isThere = wanted_.at(path_).isThere();
    const std::string oldName = name_ + oldSuffix;
    const int parent = parent_.get();
    // An atomic exchange, where the kernel has it: a directory cannot be renamed over.
    const bool exchanged = isThere && ::renameat2(parent, newName_.c_str(), parent, name_.c_str(),
                                                  RENAME_EXCHANGE) == 0;
    if (!exchanged) {
        struct stat status {};
        if (::fstatat(parent, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            (!isThere || S_ISDIR(status.st_mode))) {
            require(::renameat(parent, name_.c_str(), parent, oldName.c_str()), "rename " + path_);
        }
        if (isThere) {
            require(::renameat(parent, newName_.c_str(), parent, name_.c_str()), "rename " + path_);
        }
    }
    ::syncfs(parent);
}

void Replacement::removeOld() {
    removeAll(parent_.get(), newName_); // after an exchange
    removeAll(parent_.get(), name_ + oldSuffix);
}

} // namespace torva::ctl
