#include "torva/maildb/mail_auth_vfs.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::maildb {

namespace {

constexpr char vfs_name[] = "torva-mail-auth";

using OpenCall = int (*)(const char*, int, int);

OpenCall unguarded_open = nullptr;
thread_local const char* guarded_path = nullptr; // the file that this thread is opening

/// A regular file with a single name is not also somebody else's. It may have been removed
/// since it was opened, as journals are.
bool is_plain_file(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

/// Waits until the removal of a name that has begun in a directory is complete: it counts the
/// links of the file first, and both removing and reading lock the directory.
void wait_for_removals(const char* path) {
    const char* slash = std::strrchr(path, '/');
    char directory[PATH_MAX];
    const auto length = slash == nullptr ? 0 : static_cast<std::size_t>(slash - path);
    if (length == 0 || length >= sizeof directory) {
        return;
    }
    std::memcpy(directory, path, length);
    directory[length] = '\0';
    if (DIR* opened = opendir(directory)) {
        static_cast<void>(readdir(opened));
        closedir(opened);
    }
}

/// Whether the name by which the file was opened has been removed since. The kernel tells so
/// for good, even if the same name is linked to the same file again. Without /proc: no.
bool has_lost_its_name(int fd, const char* path) {
    wait_for_removals(path);
    constexpr char mark[] = " (deleted)";
    constexpr std::size_t mark_length = sizeof mark - 1;
    char link[32];
    char target[PATH_MAX + sizeof mark];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, target, sizeof target);
    return length > static_cast<ssize_t>(mark_length) &&
           std::memcmp(target + length - mark_length, mark, mark_length) == 0;
}

/// Whether the only name of the open file is the path, or it has none left. Somebody may
/// link another file there and remove the link after it was opened: then the file has a
/// single name, too, but not the one that was opened. Without /proc, the link would have to
/// come and go in step with every look to pass.
bool is_only_here(int fd, const char* path) {
    constexpr int looks = 8;
    struct stat opened {};
    struct stat found {};
    if (fstat(fd, &opened) != 0 || !is_plain_file(opened)) {
        return false;
    }
    if (has_lost_its_name(fd, path)) { // a journal may just have been removed
        return fstat(fd, &opened) == 0 && opened.st_nlink == 0;
    }
    for (int look = 0; look < looks; ++look) {
        if (fstat(fd, &opened) != 0 || !is_plain_file(opened)) {
            return false;
        }
        if (opened.st_nlink == 0) {
            return true;
        }
        const bool here = lstat(path, &found) == 0 && found.st_dev == opened.st_dev &&
                          found.st_ino == opened.st_ino;
        if (!here) {
            return fstat(fd, &opened) == 0 && opened.st_nlink == 0;
        }
    }
    return true;
}

/// Replaces the "open" of SQLite, for the whole process.
int guarded_open(const char* path, int flags, int mode) {
    if (guarded_path == nullptr || std::strcmp(path, guarded_path) != 0) {
        return unguarded_open(path, flags, mode);
    }
    const int fd = unguarded_open(path, flags | O_NOFOLLOW | O_NONBLOCK, mode);
    if (fd >= 0 && !is_only_here(fd, path)) {
        ::close(fd);
        errno = ELOOP;
        return -1;
    }
    return fd;
}

class PathGuard {
public:
    explicit PathGuard(const char* path) { guarded_path = path; }
    ~PathGuard() { guarded_path = nullptr; }
    PathGuard(const PathGuard&) = delete;
    PathGuard& operator=(const PathGuard&) = delete;
};

/// Checked before opening: opening a device can have side effects.
bool is_obstacle(const char* path) {
    struct stat status {};
    return lstat(path, &status) == 0 && !is_plain_file(status);
}

int open_file(sqlite3_vfs* /*vfs*/, const char* path, sqlite3_file* file, int flags,
              int* out_flags) {
    sqlite3_vfs* base = sqlite3_vfs_find("unix");
    if (path == nullptr) { // a temporary file, which SQLite names itself
        return base->xOpen(base, path, file, flags, out_flags);
    }
    file->pMethods = nullptr; // there is nothing to close
    constexpr int own_files = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL;
    if ((flags & own_files) == 0 || is_obstacle(path)) {
        return SQLITE_CANTOPEN;
    }
    const PathGuard guard(path);
    return base->xOpen(base, path, file, flags, out_flags);
}

void guard_open_call(sqlite3_vfs* base) {
    if (base->iVersion < 3 || base->xGetSystemCall == nullptr || base->xSetSystemCall == nullptr) {
        return;
    }
    const sqlite3_syscall_ptr call = base->xGetSystemCall(base, "open");
    if (call == nullptr) {
        return;
    }
    unguarded_open = reinterpret_cast<OpenCall>(call);
    base->xSetSystemCall(base, "open", reinterpret_cast<sqlite3_syscall_ptr>(guarded_open));
}

bool register_vfs() {
    sqlite3_initialize();
    sqlite3_vfs* base = sqlite3_vfs_find("unix");
    if (base == nullptr) {
        return false;
    }
    static sqlite3_vfs vfs = *base; // its functions accept any VFS with the same data
    vfs.zName = vfs_name;
    vfs.xOpen = open_file;
    guard_open_call(base);
    return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
}

} // namespace

const char* mail_auth_vfs() noexcept {
    static const bool registered = register_vfs();
    static_cast<void>(registered); // if it failed, SQLite reports that the VFS is unknown
    return vfs_name;
}

const char* resolve_directory(const char* path, char (&resolved)[PATH_MAX]) noexcept {
    const char* slash = std::strrchr(path, '/');
    char directory[PATH_MAX];
    const auto length = slash == nullptr ? 0 : static_cast<std::size_t>(slash - path);
    if (length >= sizeof directory) {
        return path;
    }
    std::memcpy(directory, path, length);
    directory[length] = '\0';
    char real[PATH_MAX];
    if (realpath(directory, real) == nullptr) { // also of no directory at all
        return path;
    }
    const int written = std::snprintf(resolved, sizeof resolved, "%s%s", real, slash);
    return written > 0 && static_cast<std::size_t>(written) < sizeof resolved ? resolved : path;
}

} // namespace torva::maildb
