// Small file and descriptor helpers of this folder's tests.
#pragma once

#include <cstddef>
#include <string>

namespace torva::test {

std::string read_file(const std::string& path); ///< throws when it cannot be read
void write_file(const std::string& path, const std::string& text);

std::size_t descriptor_count(); ///< open descriptors of this process
bool is_close_on_exec(int descriptor);

/// What is on this process's stack below the caller's frames.
std::string read_stack();

} // namespace torva::test
