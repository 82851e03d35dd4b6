// The differences between the mail servers whose authentication database we keep.
// Private to the library: not installed.
#pragma once

#include <sys/types.h>

namespace torva::maildb {

struct MailServer {
    const char* name;      ///< as the panel's mail tool calls it
    const char* path;      ///< of the database
    const char* owner;     ///< user to look up; null: root, not looked up
    mode_t directory_mode; ///< of the directory of the database
    mode_t file_mode;
};

/// The server of a type; null, reported at level 2, for an unknown type.
const MailServer* mail_server(int type) noexcept;

/// The type of the server that a line of the mail tool's features names; -1 for a line
/// about something else and, reported at level 6, for one that cannot be parsed.
int server_type_of_feature(const char* line) noexcept;

} // namespace torva::maildb
