// The panel's semaphores: numbered bytes of one file, each a record lock of the
// process that holds it, see fcntl(2). They serialise processes, not threads; they
// end with the process and are not inherited by its children. Locks on whole
// files are torva/util/FileLock.h.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Opens the semaphore file, "var/utilities.sem" below the panel's product root,
/// unless it is open already. The other functions do so by themselves.
///
/// A missing file is made with mode 0600, and each missing directory on the way to
/// it with mode 0755. The file, its directory and the product root must belong to
/// root or to the effective user and be writable by nobody else, and the file be a
/// regular one, not a link: what is wrong is reported through report_error(). Any
/// failure ends the process: report_error() with status 1, "failed to open semaphore
/// file PATH: REASON".
void init_sem(void);

/// Takes a semaphore without waiting. Taking it a second time is no error, and a
/// single release gives it back.
///
/// \param semnum  its number, 0 or more
/// \return 0 when taken; -1, with errno EACCES or EAGAIN, when another process
///         holds it
/// A negative number and any other failure end the process: report_error() with
/// status 1, "sem_lock() failed for semnum NUMBER: REASON".
int sem_lock(long semnum);

/// The same, waiting for as long as another process holds it.
///
/// \return 0
int sem_lock_wait(long semnum);

/// Releases a semaphore; one that is not held is no error.
///
/// \return 0; -1 with errno after a failure, reported through report_error() as
///         "sem_unlock() failed for semnum NUMBER: REASON"
/// A negative number ends the process, as with sem_lock().
int sem_unlock(long semnum);

/// Closes the semaphore file, which releases all that is held. Nothing to do when
/// it is not open. A failure is reported through report_error() as
/// "shutdown_sem(): failed to close semaphore file: REASON"; the file counts as
/// closed all the same.
void shutdown_sem(void);

#ifdef __cplusplus
} // extern "C"
#endif
