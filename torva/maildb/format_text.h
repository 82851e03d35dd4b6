// Formatted texts in allocated memory, without exceptions, for the sources of this folder.
// Private to the library: not installed.
#pragma once

#include <cstdlib>
#include <memory>

namespace torva::maildb {

struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// Text from malloc(3).
using Text = std::unique_ptr<char, Free>;

/// Formats like sprintf(3) into a new text. Null, logged as "Cannot allocate
/// memory: %s" at level 3, when memory runs out.
Text format_text(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

} // namespace torva::maildb
