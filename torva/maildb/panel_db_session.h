// The steps of a panel database session one by one, for torva/maildb/panel_db.h only:
// which of them fail, and what that means for the caller, is decided there.
// Private to the library: not installed.
#pragma once

#include <cstddef>

struct st_mysql; // MYSQL of the client library

extern "C" {

/// Connects and sets the session up, up to the first step that fails.
///
/// \param error       receives the message of a failure, cut to its size
/// \param error_size  its size in bytes
/// \return null when there is no connection; else the connection, owned by the
///         caller, also after a failed step: mysql_errno(3) tells whether the client
///         counts that as an error
struct st_mysql* db_open_session(char* error, std::size_t error_size);

} // extern "C"
