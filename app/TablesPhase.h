// The run's first phase: the directory of the panel's lookup tables, and the tables
// in it, empty.
#pragma once

#include <string>

namespace torva::app {

class Progress;

/// Does the phase; the first error ends it and passes through.
void tablesPhase(const Progress& progress);

/// Creates a directory with its missing parents.
///
/// \throws boost::filesystem::filesystem_error "boost::filesystem::create_directories",
///         with the path, when it cannot be created, or exists and is not a directory;
///         the code has the system category
void ensureDirectory(const std::string& path);

} // namespace torva::app
