// The check for texts that the code itself puts into a shell's command line. The
// table of safe bytes is torva/libc/escape.h.
#pragma once

#include <string>

namespace torva {

/// Makes sure that a text means nothing to a shell.
///
/// \param text  text that must be safe, NUL bytes included
/// \throws std::runtime_error "Internal error: bad escape_chars value"
void requireShellSafe(const std::string& text);

} // namespace torva
