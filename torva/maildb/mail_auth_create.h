// The parts of mail_auth_create_db() in torva/maildb/mail_auth.h that are tested alone.
// Private to the library: not installed.
#pragma once

#include <string>

namespace torva::maildb {

/// The script that creates tables, indexes and triggers, in one transaction.
extern const char auth_schema[];

/// Directory part of a database path.
///
/// \param directory  receives it
/// \return false, reported at level 2, when it is not an absolute path or is "/"
bool auth_directory(const char* path, std::string& directory);

} // namespace torva::maildb
