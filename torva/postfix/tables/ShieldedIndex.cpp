#include "torva/postfix/tables/ShieldedIndex.h"

#include "torva/libc/descriptor.h"
#include "torva/postfix/tables/Records.h"
#include "torva/process/Descriptor.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"
#include "torva/util/TmpFile.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

namespace torva::mail::postfix {

namespace {

constexpr int patience = 100; ///< in tenths of a second

/// The mode meanwhile. The sticky bit, which has no meaning for a file, tells a later guard
/// that this one was killed.
constexpr mode_t closedMode = S_ISVTX | S_IRUSR | S_IWUSR;

constexpr off_t placeholderSize = 1; ///< at most; every index is longer

constexpr time_t placeholderTime = 1; ///< the tool that writes it changes that

constexpr int swapped = EEXIST; ///< somebody has put another file in the place of the copy

[[noreturn]] void throwUnable(const std::string& path, int code) {
    throw SystemError("unable to replace " + path, code);
}

/// Whether no process has the file open for writing, as every tool that changes it does.
///
/// \param index  open for reading only
bool nobodyWrites(int index) {
    // If somebody opens it for writing meanwhile, we get a signal. SIGIO would end us.
    ::fcntl(index, F_SETSIG, SIGURG);
    if (::fcntl(index, F_SETLEASE, F_RDLCK) == 0) {
        ::fcntl(index, F_SETLEASE, F_UNLCK);
        return true;
    }
    // Not every file system has leases. The lock tells less: a reader can hold it, too.
    return errno != EAGAIN && ::flock(index, LOCK_EX | LOCK_NB) == 0;
}

bool isLocked(int index) {
    return ::flock(index, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

/// \return false: somebody still has it open for writing
bool waitForWriters(int index) {
    for (int turn = 0; turn < patience; ++turn) {
        if (nobodyWrites(index)) {
            return true;
        }
        ::usleep(100000);
    }
    return nobodyWrites(index);
}

/// The account as which the tool works: root works as the owner of the source.
uid_t toolUser(const struct stat& source) {
    return ::geteuid() == 0 ? source.st_uid : ::geteuid();
}

/// The mode that the tool gives a new index.
mode_t modeOfNew(const struct stat& source) {
    return S_IRUSR | S_IWUSR | (source.st_mode & (S_IRGRP | S_IROTH));
}

/// Removes the file that a tool was writing when it was killed, or still is after ten seconds.
void removeScratch(const std::string& path) {
    const process::Descriptor scratch(fd_above_standard(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
    if (scratch) {
        waitForWriters(scratch.get());
    }
    ::unlink(path.c_str());
}

/// \param index  open for reading only
bool mayBeReplaced(int index, const struct stat& status, const std::string& path, IndexUse use) {
    const bool hasWriter = !waitForWriters(index);
    const bool isShared = status.st_nlink > 1; // by the administrator, and so it stays
    if ((isShared && isLocked(index)) || (hasWriter && use != IndexUse::rebuilt)) {
        throw PostfixDatabaseError(path + " is locked by another process (fuser " + path + ")");
    }
    return !isShared;
}

} // namespace

/// One file whose lock the tool takes.
class ShieldedIndex::File {
public:
    /// \param placeholder  of a file that does not exist; null: none is made
    File(std::string path, const struct stat& source, IndexUse use, const char* placeholder);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void letGo() {
        succeeded_ = true;
        finish();
    }

    /// rename(2) takes only names. Whoever swapped the copy right before it would have the
    /// tool follow their link.
    void requireInPlace() const {
        if (held_ && !isNameOf(path_, held_.get())) {
            throwUnable(path_, swapped);
        }
    }

private:
    void shield(int index, IndexUse use);
    void replace(int index, const struct stat& status);
    void putCopyInPlace(int index, const struct stat& status);
    void makePlaceholder();
    void finish();
    void closeToOthers(int fd, uid_t owner, gid_t group) const;

    const std::string path_;
    const struct stat source_;
    const char* const placeholder_;
    process::Descriptor held_;  ///< the new file; none: nothing was done
    struct stat original_ = {}; ///< owner and mode that the new file gets in the end
    bool made_ = false;         ///< from a placeholder
    bool succeeded_ = false;
};

ShieldedIndex::File::File(std::string path, const struct stat& source, IndexUse use,
                          const char* placeholder)
    : path_(std::move(path)),
      source_(source),
      placeholder_(use == IndexUse::rebuilt ? placeholder : nullptr) {
    const process::Descriptor index(fd_above_standard(
        ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
    if (index) {
        shield(index.get(), use);
    } else if (errno != ENOENT) {
        throwUnable(path_, errno);
    } else if (placeholder_ != nullptr) {
        makePlaceholder();
    }
}

void ShieldedIndex::File::shield(int index, IndexUse use) {
    struct stat status = {};
    if (::fstat(index, &status) != 0) {
        throwUnable(path_, errno);
    }
    if (isPlanted(path_, status)) {
        throwUnable(path_, EINVAL); // since it was checked
    }
    if (S_ISREG(status.st_mode) && (status.st_mode & S_ISVTX) != 0 &&
        status.st_size <= placeholderSize) {
        ::unlink(path_.c_str()); // the placeholder of a guard that was killed
        if (placeholder_ != nullptr) {
            makePlaceholder();
        }
        return;
    }
    const bool staysEmpty = status.st_size == 0 && use != IndexUse::rebuilt;
    const bool isAnothers = toolUser(source_) != 0 && toolUser(source_) != status.st_uid;
    if (S_ISREG(status.st_mode) && !staysEmpty && !isAnothers &&
        mayBeReplaced(index, status, path_, use)) {
        replace(index, status);
    }
}

void ShieldedIndex::File::replace(int index, const struct stat& status) {
    original_ = status;
    if ((status.st_mode & S_ISVTX) != 0) {
        original_.st_mode = modeOfNew(source_);
    }
    try {
        putCopyInPlace(index, status);
    } catch (const SystemError& error) {
        held_.closeQuietly();
        // The disk is full, or a file system is mounted there. If the lock is free, the tool
        // may find that it can write the index all the same.
        if (error.code() == swapped || isLocked(index)) {
            throwUnable(path_, error.code());
        }
    }
}

void ShieldedIndex::File::putCopyInPlace(int index, const struct stat& status) {
    TmpFile copy(path_ + ".");
    copyOpenFile(index, status, copy);
    if (status.st_size == 0 && placeholder_ != nullptr) {
        copy << placeholder_;
    }
    closeToOthers(copy.descriptor(), status.st_uid, status.st_gid);
    held_ = process::Descriptor(::fcntl(copy.descriptor(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!held_) {
        throw SystemError("dup");
    }
    copy.commit();
    copy.setAutoclean(true);
    if (!isNameOf(copy.path(), held_.get())) {
        throw SystemError("rename", swapped);
    }
    if (std::rename(copy.path().c_str(), path_.c_str()) != 0) {
        throw SystemError("rename");
    }
    copy.setAutoclean(false);
}

void ShieldedIndex::File::makePlaceholder() {
    held_ = process::Descriptor(fd_above_standard(
        ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, closedMode)));
    if (!held_ && errno == ENOENT) {
        return; // a link of the administrator to a directory that does not exist
    }
    if (!held_) {
        throwUnable(path_, errno);
    }
    original_ = source_;
    original_.st_mode = modeOfNew(source_);
    made_ = true;
    try {
        closeToOthers(held_.get(), source_.st_uid, source_.st_gid);
        const std::size_t size = std::strlen(placeholder_);
        if (::write(held_.get(), placeholder_, size) != static_cast<ssize_t>(size)) {
            throw SystemError("write");
        }
        const timespec times[2] = {{placeholderTime, 0}, {placeholderTime, 0}};
        if (::futimens(held_.get(), times) != 0) {
            throw SystemError("utimensat");
        }
    } catch (const SystemError& error) {
        ::unlink(path_.c_str());
        if (error.code() != ENOSPC && error.code() != EDQUOT) {
            throwUnable(path_, error.code());
        }
        held_.closeQuietly(); // the tool has its own words for a full disk
    }
}

/// Only the account as which the tool works may open the file.
void ShieldedIndex::File::closeToOthers(int fd, uid_t owner, gid_t group) const {
    if (toolUser(source_) != ::geteuid() && ::fchown(fd, owner, group) != 0) {
        throw SystemError("chown");
    }
    if (::fchmod(fd, closedMode) != 0) {
        throw SystemError("chmod");
    }
}

void ShieldedIndex::File::finish() {
    if (!held_) {
        return;
    }
    struct stat now = {};
    const bool isUsed = succeeded_ && ::fstat(held_.get(), &now) == 0 &&
                        (now.st_mtim.tv_sec != placeholderTime || now.st_size > placeholderSize);
    if (made_ && !isUsed && isNameOf(path_, held_.get())) {
        ::unlink(path_.c_str());
    }
    // Only root can give the file away, and only root gets one of another account.
    if (::geteuid() == 0 && ::fchown(held_.get(), original_.st_uid, original_.st_gid) != 0) {
        throw SystemError("chown");
    }
    if (::fchmod(held_.get(), original_.st_mode & 0777) != 0) {
        throw SystemError("chmod");
    }
    held_.closeQuietly();
}

ShieldedIndex::File::~File() {
    const int saved_errno = errno;
    try {
        finish();
    } catch (const SystemError&) { // NOLINT(bugprone-empty-catch): the next operation does it
    }
    errno = saved_errno;
}

ShieldedIndex::ShieldedIndex(const std::string& table, IndexUse use)
    : ShieldedIndex(table.substr(0, table.find(':')), tableFile(table), use) {}

ShieldedIndex::ShieldedIndex(const std::string& type, const std::string& source, IndexUse use) {
    struct stat status = {};
    if (::stat(source.c_str(), &status) != 0) {
        return; // the tool will say so
    }
    const auto add = [&](const std::string& path, const char* placeholder) {
        files_.push_back(std::make_unique<File>(path, status, use, placeholder));
    };
    if (type == "hash" || type == "btree") {
        // postmap removes an empty index and makes another one, which others may open.
        add(resolvedSource(source + ".db"), "\n");
        // A Postfix without Berkeley DB may use LMDB for these types.
        add(resolvedSource(source + ".lmdb"), nullptr);
    } else if (type == "lmdb") {
        add(resolvedSource(source + ".lmdb"), "");
    } else if (type == "cdb" && use == IndexUse::rebuilt) {
        // Not the index: the tool locks this file, and renames it over the index.
        const std::string scratch = source + ".cdb.tmp";
        removeScratch(scratch);
        add(scratch, "");
    }
    for (const auto& file : files_) {
        file->requireInPlace();
    }
}

ShieldedIndex::~ShieldedIndex() = default;

void ShieldedIndex::letGo() {
    for (const auto& file : files_) {
        file->letGo();
    }
}

ShieldedIndex shieldForChanges(const std::string& table) {
    requireTableName(table);
    const std::string source = tableFile(table);
    const FileLock lock(source, LockMode::wait);
    settleIndexes(source, IndexUse::changed);
    return ShieldedIndex(table, IndexUse::changed);
}

} // namespace torva::mail::postfix
