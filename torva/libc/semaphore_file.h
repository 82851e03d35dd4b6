// The file of the panel's semaphores: opened where only root and the caller can have
// put it. Part of torva/libc/semaphore.h.
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Opens ROOT/var/utilities.sem for writing; a missing file is made with mode 0600, and
/// each missing directory on the way to it with mode 0755.
///
/// ROOT, ROOT/var and the file must belong to root or to the effective user, and be
/// writable by nobody else, or whoever may change them chooses what is opened or made
/// here. The directories may be links; the file may not, and is a regular file.
///
/// \param path  ROOT/var/utilities.sem, absolute
/// \return a descriptor above 2, close-on-exec, owned by the caller; -1 with errno:
///         EPERM when one of the three is not to be trusted, after report_error() has
///         named it and what is wrong, ELOOP for a link in place of the file, otherwise
///         that of open(2), fstat(2) or mkdir(2)
int open_semaphore_file(const char* path);

#ifdef __cplusplus
} // extern "C"
#endif
