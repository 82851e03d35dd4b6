// Descriptors of the plain functions. Those of the class layers have holders, see
// torva/process/.
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Moves a descriptor out of the reach of the three standard streams, into which a
/// child or a message would otherwise be written when one of them was closed.
///
/// \param fd  open descriptor, consumed; negative: the result of a failed open
/// \return a descriptor above 2, close-on-exec where it had to move; -1 with errno
///         when none is available (`fd` is closed then) or `fd` is negative
int fd_above_standard(int fd);

#ifdef __cplusplus
} // extern "C"
#endif
