// Writing to a pipe whose reader may be gone, without being killed and without changing
// the action of SIGPIPE, which belongs to the program: see signal(7), pipe(7).
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Suppresses SIGPIPE in the calling thread: a write(2) to a pipe without a reader only
/// fails with EPIPE. Other threads and the action of the signal are not affected.
///
/// \return a value for sigpipe_release(). Keeps errno.
int sigpipe_hold(void);

/// Drops a SIGPIPE that arrived since sigpipe_hold(), and unblocks the signal unless it was
/// blocked before. One that was already pending stays pending. Call it in the thread of
/// sigpipe_hold(), for the last hold first. Keeps errno.
///
/// \param held  result of sigpipe_hold()
void sigpipe_release(int held);

#ifdef __cplusplus
} // extern "C"
#endif
