// Exclusive flock(2) locks between processes: the two plain functions, and the
// wrapper that the class layers use. Everyone in this system locks a file of the
// lock directory, never the file itself, which opening for the lock would empty.
// The byte-range semaphores of the panel are torva/libc/semaphore.h.
#pragma once

#include "torva/util/file_lock.h"

#include <string>

namespace torva {

/// What to do when somebody else holds a lock.
enum class LockMode { wait, fail };

/// A lock of "/var/lock/files" held for as long as the object lives. Two locks of
/// one name in one process exclude each other: take each once, at the outermost
/// operation.
class FileLock {
public:
    /// \param name  path of the file that the lock stands for
    /// \throws SystemError by errno, "lock() failed"
    /// \throws std::runtime_error "lock(NAME) failed: file is already locked"
    ///         (LockMode::fail only)
    /// The lock directory is made, with mode 0700, when it is missing.
    FileLock(const std::string& name, LockMode mode);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    file_lock* handle_;
};

/// The throwing wrapper around the two plain functions, which makes the lock directory,
/// with mode 0700, when `in_lock_dir` is set and it is missing.
///
/// \return handle with a locked descriptor, owned by the caller
/// \throws as FileLock
file_lock* lock(const std::string& name, bool in_lock_dir, LockMode mode);

} // namespace torva
