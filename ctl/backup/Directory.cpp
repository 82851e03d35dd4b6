#include "ctl/backup/Directory.h"

#include "ctl/host/Files.h"
#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

using process::Descriptor;

namespace {

constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Creates a directory and its parents.
void makeDirectories(const std::string& path, mode_t mode) {
    if (::mkdir(path.c_str(), mode) == 0 || errno != ENOENT) {
        return; // opening it fails and gives the reason
    }
    makeDirectories(directoryOf(path), 0755);
    static_cast<void>(::mkdir(path.c_str(), mode));
}

/// Throws the error for a directory of our own that could not be opened.
[[noreturn]] void throwUnopened(const std::string& path, int code) {
    if (code == ELOOP || code == ENOTDIR) {
        throw Untrusted(path, "rm " + path); // a link or a file in its place
    }
    throwSystemError("open " + path, code);
}

void judge(const Descriptor& directory, const std::string& path) {
    struct stat status {};
    if (::fstat(directory.get(), &status) != 0) {
        throwSystemError("fstat " + path, errno);
    }
    if (status.st_uid != ::geteuid() || (status.st_mode & 0022) != 0) {
        // It may hold what is still needed.
        throw Untrusted(path, "see who has written into it, then chown -R root: " + path +
                                  " && chmod 700 " + path);
    }
    if ((status.st_mode & 07777) != 0700 && ::fchmod(directory.get(), 0700) != 0) {
        throwSystemError("fchmod " + path, errno);
    }
}

Descriptor opened(int directory, const char* name, int flags, const std::string& what) {
    Descriptor file(::openat(directory, name, flags, 0600));
    if (!file) {
        throwSystemError("open " + what, errno);
    }
    return file;
}

/// Removes anything but a directory that is not empty.
///
/// \return false: it is one
bool removeOne(int directory, const std::string& name) {
    if (::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != EISDIR) {
        throwSystemError("unlink " + name, errno);
    }
    if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != ENOTEMPTY && errno != EEXIST) {
        throwSystemError("rmdir " + name, errno);
    }
    return false;
}

/// Opens a directory that is to be removed, and takes it from its owner, who could go on
/// creating files in it.
Descriptor takeOver(int directory, const std::string& name) {
    Descriptor inner = opened(directory, name.c_str(), directoryFlags, name);
    if (::fchown(inner.get(), ::geteuid(), ::getegid()) == 0) {
        ::fchmod(inner.get(), 0700);
    }
    return inner;
}

/// Moves a directory to another one, under a name that is new there.
/// \param number  counts the names; of one removal
void raise(int from, const std::string& name, int to, unsigned long& number) {
    for (;;) {
        const std::string free = ".raised" + std::to_string(number++);
        if (::renameat2(from, name.c_str(), to, free.c_str(), RENAME_NOREPLACE) == 0) {
            return;
        }
        if (errno != EEXIST) {
            throwSystemError("rename " + name, errno);
        }
    }
}

/// Removes something in the directory; of a directory, the directories in it come to stand
/// beside it. Neither descriptors nor the stack grow with the depth.
void removeOrRaise(int directory, const std::string& name, unsigned long& number) {
    if (removeOne(directory, name)) {
        return;
    }
    {
        const Descriptor inner = takeOver(directory, name);
        for (const std::string& below : namesIn(inner.get())) {
            if (!removeOne(inner.get(), below)) {
                raise(inner.get(), below, directory, number);
            }
        }
    }
    removeOne(directory, name); // whatever came in meanwhile is for the next pass
}

} // namespace

Descriptor openDirectory(const std::string& path) {
    return opened(AT_FDCWD, path.c_str(), directoryFlags, path);
}

Descriptor openOwnDirectory(const std::string& path) {
    makeDirectories(path, 0700);
    Descriptor directory(::open(path.c_str(), directoryFlags));
    if (!directory) {
        throwUnopened(path, errno);
    }
    judge(directory, path);
    return directory;
}

Descriptor openOwnDirectoryIfThere(const std::string& path) {
    Descriptor directory(::open(path.c_str(), directoryFlags));
    if (directory) {
        judge(directory, path);
    } else if (errno != ENOENT) {
        throwUnopened(path, errno);
    }
    return directory;
}

std::vector<std::string> namesIn(int directory) {
    // A separate descriptor: the listing moves and closes it.
    const int copy = ::openat(directory, ".", directoryFlags);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(copy < 0 ? nullptr : ::fdopendir(copy),
                                                      &::closedir);
    if (!listing) {
        Descriptor(copy).closeQuietly();
        throwSystemError("opendir", errno);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(listing.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throwSystemError("readdir", errno);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void removeAll(int directory, const std::string& name) {
    if (removeOne(directory, name)) {
        return;
    }
    {
        const Descriptor top = takeOver(directory, name);
        unsigned long number = 0;
        // Each pass brings what is deeper one level up.
        for (auto names = namesIn(top.get()); !names.empty(); names = namesIn(top.get())) {
            for (const std::string& below : names) {
                removeOrRaise(top.get(), below, number);
            }
        }
    }
    if (!removeOne(directory, name)) {
        throwSystemError("rmdir " + name, ENOTEMPTY);
    }
}

void writeOwnFile(int directory, const std::string& name, const std::string& text) {
    const std::string scratch = "." + name;
    static_cast<void>(::unlinkat(directory, scratch.c_str(), 0)); // of a killed call
    Descriptor file = opened(directory, scratch.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, name);
    try {
        writeAll(file.get(), text);
        if (::fsync(file.get()) != 0) {
            throwSystemError("fsync " + name, errno);
        }
        file.release();
        if (::renameat(directory, scratch.c_str(), directory, name.c_str()) != 0 ||
            ::fsync(directory) != 0) {
            throwSystemError("rename " + name, errno);
        }
    } catch (...) {
        static_cast<void>(::unlinkat(directory, scratch.c_str(), 0));
        throw;
    }
}

bool isShortage(int code) {
    return code == EMFILE || code == ENFILE || code == ENOMEM;
}

std::string readOwnFile(int directory, const std::string& name) {
    const Descriptor file(
        ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && isShortage(errno)) {
        throwSystemError("open " + name, errno);
    }
    return file ? readAll(file.get()).value_or("") : std::string();
}

} // namespace torva::ctl
