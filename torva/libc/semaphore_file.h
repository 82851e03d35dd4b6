// Opens the file of the panel's semaphores, if only root or the caller can have put it
// there. Part of torva/libc/semaphore.h.
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Opens ROOT/var/utilities.sem for writing; a missing file is created with mode 0600, and
/// each missing directory in its path with mode 0755, minus the umask.
///
/// ROOT, ROOT/var and the file must belong to root or to the effective user and must not be
/// writable by anybody else, who could otherwise choose what is opened or created here. The
/// directories may be links; the file must be a regular file.
///
/// \param path  ROOT/var/utilities.sem, absolute
/// \return a descriptor above 2, close-on-exec, owned by the caller; -1 with errno: EPERM,
///         after a report_error() with path and reason, when one of the three cannot be
///         trusted; ELOOP when the file is a link; otherwise that of open(2), fstat(2) or
///         mkdir(2)
int open_semaphore_file(const char* path);

#ifdef __cplusplus
} // extern "C"
#endif
