// Sizes of files and file systems, in the report's words.
#pragma once

#include <cstdint>
#include <string>

namespace torva::ctl {

/// "12 MB": in units of 1,048,576 bytes, rounded down.
inline std::string megabytes(std::uint64_t bytes) {
    return std::to_string(bytes / 1048576) + " MB";
}

} // namespace torva::ctl
