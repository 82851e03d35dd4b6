// Exclusive flock(2) locks between processes: the two plain functions, and the
// wrapper that the class layers use. Everyone in this system locks a file of the
// lock directory, never the file itself, which opening for the lock would empty.
// The byte-range semaphores of the panel are torva/libc/semaphore.h.
#pragma once

#include <string>

extern "C" {

/// A lock, as the two functions hand it out; released with file_lock_free().
struct file_lock {
    int fd;     ///< above 2: locked; 0: held by somebody else; negative: error
    char* path; ///< the file that was opened
};

/// Takes the lock without waiting.
///
/// \param name         the file to lock
/// \param in_lock_dir  not 0: lock, in its stead, the file of "/var/lock/files"
///                     whose name is `name` with every "/" turned into "_". The
///                     directory is not made, but judged, and one that others may
///                     read is closed to them: see torva/util/LockDirectory.h
/// \return handle owned by the caller, see file_lock::fd (errno tells about -1);
///         null when memory runs out. A file that cannot be opened, or whose directory
///         is refused, is reported through report_error() as "Unable to open file ...".
/// The file is created with mode 0644 when missing and EMPTIED when present. The last
/// component of its path is not followed when it is a link (errno ELOOP). What is no
/// regular file is refused without waiting for anybody at its other end (EPERM; EISDIR
/// for a directory, ENXIO for a socket), and in the lock directory a file with a second
/// hard link (EMLINK), which is not emptied.
struct file_lock* file_lock_try(const char* name, int in_lock_dir);

/// The same, waiting for as long as somebody else holds the lock.
struct file_lock* file_lock_wait(const char* name, int in_lock_dir);

/// Releases the lock, if held, and the handle; null is allowed. Keeps errno. The
/// lock file stays.
void file_lock_free(struct file_lock* handle);

} // extern "C"

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

/// The throwing wrapper round the two plain functions, which makes the lock directory,
/// with mode 0700, when `in_lock_dir` is set and it is missing.
///
/// \return handle with a locked descriptor, owned by the caller
/// \throws as FileLock
file_lock* lock(const std::string& name, bool in_lock_dir, LockMode mode);

} // namespace torva
