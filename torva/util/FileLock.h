// Exclusive flock(2) locks between processes: the two plain functions, and the class for
// them. This system always locks a file in the lock directory instead of the file itself,
// which opening for the lock would empty. The byte-range semaphores of the panel are
// torva/libc/semaphore.h.
#pragma once

#include "torva/util/file_lock.h"

#include <string>

namespace torva {

/// What to do when a lock is held elsewhere.
enum class LockMode { wait, fail };

/// A lock in "/var/lock/files", held during the lifetime of the object. Two locks with one
/// name exclude each other even in one process: take each once, in the outermost operation.
class FileLock {
public:
    /// Creates the lock directory, with mode 0700, if it does not exist.
    ///
    /// \param name  path of the file to lock
    /// \throws SystemError  "lock() failed", or ExSystemError for the errno
    /// \throws std::runtime_error "lock(NAME) failed: file is already locked"
    ///         (LockMode::fail only)
    FileLock(const std::string& name, LockMode mode);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    file_lock* handle_;
};

/// The throwing wrapper around the two plain functions. With `in_lock_dir`, creates the
/// lock directory, with mode 0700, if it does not exist.
///
/// \return handle with a locked descriptor, owned by the caller
/// \throws as FileLock
file_lock* lock(const std::string& name, bool in_lock_dir, LockMode mode);

} // namespace torva
