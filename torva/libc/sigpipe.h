// Writing to a pipe whose reader may have gone, without dying of it and without
// touching the action of SIGPIPE, which belongs to the program: see signal(7), pipe(7).
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Holds SIGPIPE back in the calling thread: a write(2) to a pipe without a reader then
/// just fails with EPIPE. Other threads, the action of the signal and what children
/// inherit are as before.
///
/// \return what sigpipe_release() has to undo. Keeps errno.
int sigpipe_hold(void);

/// Drops the SIGPIPE that came while it was held, and lets the signal through again
/// unless it was blocked before. One that was already pending stays pending. In the
/// thread of sigpipe_hold(), the last hold first. Keeps errno.
///
/// \param held  result of sigpipe_hold()
void sigpipe_release(int held);

#ifdef __cplusplus
} // extern "C"
#endif
