// Exclusive flock(2) locks between processes, as plain functions: the C interface of
// torva/util/FileLock.h, which explains what this system locks. C++ programs use the class
// there.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// A lock, as the two functions return it; free it with file_lock_free().
struct file_lock {
    int fd;     ///< above 2: locked; 0: held elsewhere; negative: error
    char* path; ///< the file that was opened
};

/// Takes the lock without waiting.
///
/// \param name         the file to lock
/// \param in_lock_dir  not 0: locks instead the file in "/var/lock/files" whose name is
///                     `name` with every "/" replaced by "_". The directory is not
///                     created here. It must belong to us alone: one that others may
///                     read gets mode 0700, one that they may write is refused
/// \return handle owned by the caller, see file_lock::fd (-1 with errno); null when
///         memory runs out. When the file cannot be opened, or the directory is refused,
///         "Unable to open file ..." is reported through report_error()
/// The file is created with mode 0644, minus the umask, if it does not exist, otherwise
/// EMPTIED. When it is a link, it is refused (errno ELOOP). Other files that are not regular
/// are refused, without blocking, with EPERM (a directory with EISDIR, a socket with ENXIO).
/// In the lock directory, a file with a second hard link is refused with EMLINK, and not
/// emptied; one of another user with EPERM, reported with the user.
struct file_lock* file_lock_try(const char* name, int in_lock_dir);

/// The same, but waits while the lock is held elsewhere.
struct file_lock* file_lock_wait(const char* name, int in_lock_dir);

/// Releases the lock, if it is held, and frees the handle; null is allowed. Keeps errno.
/// The lock file stays.
void file_lock_free(struct file_lock* handle);

#ifdef __cplusplus
} // extern "C"
#endif
