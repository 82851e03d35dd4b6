// The run's first phase: the directory of the panel's lookup tables, and the tables
// in it, empty.
#pragma once

#include <string>

namespace torva::app {

class Progress;

/// Carries out the phase; every error ends it and passes through.
void tablesPhase(const Progress& progress);

/// Makes a directory and whatever is missing above it.
///
/// \throws boost::filesystem::filesystem_error "boost::filesystem::create_directories",
///         with the path, when it is there and no directory, or cannot be made; the
///         code has the system category
void ensureDirectory(const std::string& path);

} // namespace torva::app
