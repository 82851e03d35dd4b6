// Exclusive flock(2) locks between processes, as plain functions: the C side of
// torva/util/FileLock.h, which tells what this system locks, and how. A program in C++
// has the class there.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// A lock, as the two functions hand it out; released with file_lock_free().
struct file_lock {
    int fd;     ///< above 2: locked; 0: held by somebody else; negative: error
    char* path; ///< the file that was opened
};

/// Takes the lock without waiting.
///
/// \param name         the file to lock
/// \param in_lock_dir  not 0: lock instead the file of "/var/lock/files"
///                     whose name is `name` with every "/" turned into "_". The
///                     directory is not made, but judged, and one that others may
///                     read is closed to them (mode 0700)
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

#ifdef __cplusplus
} // extern "C"
#endif
