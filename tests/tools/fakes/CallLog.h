// The log of calls, which tests/run/calls.py reads.
#pragma once

#include <string>
#include <vector>

namespace faketool {

/// The names in a directory, sorted; without those of the descriptor with which it is read.
std::vector<std::string> entries(const std::string& directory);

/// The table or file that a call of postmap or postalias is about.
std::string sourceOf(const std::vector<std::string>& argv);

/// Adds a line to the log: the NUMBER-th call, and what it found.
void record(const std::string& tool, long number, const std::vector<std::string>& argv,
            const std::string& input, const std::vector<std::string>& descriptors);

} // namespace faketool
