// How SQLite opens the mail-authentication database. Its directory belongs to the mail
// server's account, which may replace the database and its journal by anything at any
// moment, while root reads and writes there. For torva/maildb/mail_auth_sql.h only.
// Private to the library: not installed.
#pragma once

#include <climits>

namespace torva::maildb {

/// The name of an SQLite VFS, for sqlite3_open_v2() with SQLITE_OPEN_NOFOLLOW. It is
/// SQLite's "unix" with these differences; refusals are SQLITE_CANTOPEN:
///
/// - A database or a journal is opened only when it is a regular file without a second
///   hard link. A link is not followed, a FIFO does not block, and the check is made on
///   the descriptor that SQLite then uses. Where fs.protected_hardlinks is 0 (see proc(5))
///   and /proc is not mounted, one gap remains: a hard link that comes and goes in step with
///   eight checks.
/// - A journal that names a super-journal is not rolled back: SQLite would delete the file
///   of that name, which whoever may write the journal chooses.
/// - A database in WAL mode is not opened: its shared memory is opened in other ways.
///
/// The check of the descriptor needs SQLite's system call "open" to be overridden. That is
/// done once for the whole process, and changes nothing for other databases. If other code
/// resets it, only the check before opening remains (and O_NOFOLLOW, which SQLite always
/// sets): a FIFO or a hard link that is swapped in after that check gets through.
const char* mail_auth_vfs() noexcept;

/// Resolves the directory part of a path, so that only its last component may be a link:
/// SQLITE_OPEN_NOFOLLOW refuses links anywhere, but directories of a host may be links.
///
/// \param resolved  receives the path with its directory part resolved, see realpath(3)
/// \return `resolved`, or the path itself when it cannot be resolved, for example because
///         the directory does not exist
const char* resolve_directory(const char* path, char (&resolved)[PATH_MAX]) noexcept;

} // namespace torva::maildb
