#include "torva/util/UntrustedLocks.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva {

namespace {

/// An open directory, closed at the end.
class Directory {
public:
    /// \param fd  consumed; -1: nothing is open
    explicit Directory(int fd) : entries_(fd == -1 ? nullptr : ::fdopendir(fd)) {
        if (entries_ == nullptr && fd != -1) {
            ::close(fd);
        }
    }
    ~Directory() {
        if (entries_ != nullptr) {
            ::closedir(entries_);
        }
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    bool isOpen() const { return entries_ != nullptr; }
    int fd() const { return ::dirfd(entries_); }

    /// The next name, "." and ".." left out; null at the end or, with errno, after a
    /// failure.
    const char* next() {
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(entries_);
            if (entry == nullptr) {
                return nullptr;
            }
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
                return entry->d_name;
            }
        }
    }

private:
    DIR* entries_;
};

int openAt(int directory, const char* name) {
    return ::openat(directory, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// The answer to a question about a process.
enum class Answer { no, yes, unknown };

/// Whether the real user of the process is root or the effective user.
Answer isOurs(int process) {
    const int fd = ::openat(process, "status", O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return errno == ENOENT || errno == ESRCH ? Answer::no : Answer::unknown;
    }
    char text[1024]; // the line is among the first ten
    const ssize_t size = ::read(fd, text, sizeof(text) - 1);
    const int reason = errno;
    ::close(fd);
    if (size <= 0) {
        return size < 0 && reason == ESRCH ? Answer::no : Answer::unknown;
    }
    text[size] = '\0';
    const char key[] = "\nUid:\t";
    const char* line = std::strstr(text, key);
    if (line == nullptr) {
        return Answer::unknown;
    }
    const unsigned long user = std::strtoul(line + sizeof(key) - 1, nullptr, 10);
    return user == 0 || user == ::geteuid() ? Answer::yes : Answer::no;
}

/// Whether the process has the file open.
Answer hasOpen(int process, const struct stat& file) {
    Directory descriptors(openAt(process, "fd"));
    if (!descriptors.isOpen()) {
        return errno == ENOENT || errno == ESRCH ? Answer::no : Answer::unknown;
    }
    while (const char* name = descriptors.next()) {
        struct stat status;
        if (::fstatat(descriptors.fd(), name, &status, 0) == 0 && status.st_dev == file.st_dev &&
            status.st_ino == file.st_ino) {
            return Answer::yes;
        }
    }
    return errno == 0 || errno == ENOENT || errno == ESRCH ? Answer::no : Answer::unknown;
}

/// Whether it is certain that no process of ours has the file open.
bool isUntrusted(const struct stat& file) {
    Directory processes(openAt(AT_FDCWD, "/proc"));
    if (!processes.isOpen()) {
        return false;
    }
    bool any = false;
    while (const char* name = processes.next()) {
        if (std::strspn(name, "0123456789") != std::strlen(name)) {
            continue;
        }
        const int process = openAt(processes.fd(), name);
        if (process == -1) {
            if (errno == ENOENT || errno == ESRCH) {
                continue; // it has ended
            }
            return false;
        }
        any = true;
        Answer used = isOurs(process);
        if (used == Answer::yes) {
            used = hasOpen(process, file);
        }
        ::close(process);
        if (used != Answer::no) {
            return false;
        }
    }
    return any && errno == 0;
}

void removeUntrusted(int directory) {
    Directory files(openAt(directory, "."));
    if (!files.isOpen()) {
        return;
    }
    while (const char* name = files.next()) {
        struct stat status;
        if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode) && isUntrusted(status)) {
            ::unlinkat(directory, name, 0);
        }
    }
}

} // namespace

void removeUntrustedLocks(int directory) {
    const int saved_errno = errno;
    removeUntrusted(directory); // whose descriptors are closed when it is back
    errno = saved_errno;
}

} // namespace torva
