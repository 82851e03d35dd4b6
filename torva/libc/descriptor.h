// Descriptors of the plain functions. Those of the class layers have holders, see
// torva/process/.
// Private to the library: not installed.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Moves a descriptor above those of the standard streams: if one of these was closed, the
/// descriptor could have its number, and output would go to it.
///
/// \param fd  open descriptor, consumed; negative: the result of a failed open
/// \return a descriptor above 2, close-on-exec if it had to move; -1 with errno when
///         none is available (`fd` is closed then) or `fd` is negative
int fd_above_standard(int fd);

#ifdef __cplusplus
} // extern "C"
#endif
