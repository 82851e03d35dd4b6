// A check for texts that the code itself puts into a shell command line. The table of safe
// bytes is torva/libc/escape.h.
#pragma once

#include <string>

namespace torva {

/// Checks that a text contains nothing special to a shell.
///
/// \param text  text that must be safe; it may contain NUL bytes
/// \throws std::runtime_error "Internal error: bad escape_chars value"
void requireShellSafe(const std::string& text);

} // namespace torva
