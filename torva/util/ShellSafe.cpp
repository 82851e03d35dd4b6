#include "torva/util/ShellSafe.h"

#include "torva/libc/escape.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace torva {

void requireShellSafe(const std::string& text) {
    // Piece by piece: the plain function stops at a NUL.
    std::size_t start = 0;
    while (start <= text.size()) {
        const char* piece = text.c_str() + start;
        if (is_shell_safe(piece) == 0) {
            throw std::runtime_error("Internal error: bad escape_chars value");
        }
        start += std::strlen(piece) + 1;
    }
}

} // namespace torva
