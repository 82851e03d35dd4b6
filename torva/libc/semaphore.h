// The panel's semaphores: numbered bytes of one file, each taken by a record lock, see
// fcntl(2). They serialise processes, not threads. They are released when the process ends,
// and its children do not inherit them. Locks on whole files are torva/util/FileLock.h.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Opens the semaphore file, "var/utilities.sem" below the panel's product root,
/// unless it is open already. sem_lock(), sem_lock_wait() and sem_unlock() do so themselves.
///
/// A missing file is created with mode 0600, and each missing directory in its path with
/// mode 0755, minus the umask. The file, its directory and the product root must belong to
/// root or to the effective user and must not be writable by anybody else, and the file must
/// be a regular one and not a link; violations are reported through report_error(). Any
/// failure ends the process: report_error() with status 1, "failed to open semaphore file
/// PATH: REASON".
void init_sem(void);

/// Takes a semaphore without waiting. Taking it again in the same process succeeds, and one
/// release is enough.
///
/// \param semnum  its number, 0 or more
/// \return 0 when taken; -1, with errno EACCES or EAGAIN, when another process
///         holds it
/// A negative number and any other failure end the process: report_error() with
/// status 1, "sem_lock() failed for semnum NUMBER: REASON".
int sem_lock(long semnum);

/// The same, but waits while another process holds it.
///
/// \return 0
int sem_lock_wait(long semnum);

/// Releases a semaphore; one that is not held is not an error.
///
/// \return 0; -1 with errno after a failure, reported through report_error() as
///         "sem_unlock() failed for semnum NUMBER: REASON"
/// A negative number ends the process, as with sem_lock().
int sem_unlock(long semnum);

/// Closes the semaphore file, which releases all semaphores. Does nothing when it is not
/// open. A failure is reported through report_error() as "shutdown_sem(): failed to close
/// semaphore file: REASON"; the file counts as closed nevertheless.
void shutdown_sem(void);

#ifdef __cplusplus
} // extern "C"
#endif
