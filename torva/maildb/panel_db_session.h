// The steps of setting up a panel database session, for torva/maildb/panel_db.h only, which
// decides what a failed step means for the caller.
// Private to the library: not installed.
#pragma once

#include <cstddef>

struct st_mysql; // MYSQL of the client library

extern "C" {

/// Connects and sets up the session, until the first step that fails.
///
/// \param error       receives the message of a failure, truncated to its size
/// \param error_size  its size in bytes
/// \return null when there is no connection; otherwise the connection, owned by the
///         caller, even after a failed step: mysql_errno(3) tells whether the client
///         counts that as an error
struct st_mysql* db_open_session(char* error, std::size_t error_size);

} // extern "C"
