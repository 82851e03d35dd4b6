// Which bytes are safe in a shell's command line. The check that throws is
// torva/util/ShellSafe.h.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// 256 marks, one for each byte value: "-" for a safe byte, "*" for one that needs a
/// backslash before it, "n" for one that needs its own escape sequence. Bytes from 128 on
/// are safe.
extern const char* shell_escape_chars;

/// \param text  may be null
/// \return 1 when every byte is safe, so also for null and the empty text; otherwise 0
int is_shell_safe(const char* text);

#ifdef __cplusplus
} // extern "C"
#endif
