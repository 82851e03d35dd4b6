// How SQLite reaches the mail-authentication database. Its directory belongs to the mail
// server's account, which may put anything in the place of the database and its journal
// at any moment, while root reads and writes there. For torva/maildb/mail_auth_sql.h only.
// Private to the library: not installed.
#pragma once

#include <climits>

namespace torva::maildb {

/// Name of an SQLite VFS, to be given to sqlite3_open_v2() with SQLITE_OPEN_NOFOLLOW. It is
/// SQLite's "unix" with these differences; what it refuses is SQLITE_CANTOPEN:
///
/// - A database or a journal is opened only when it is a regular file without a second
///   hard link. A link is not followed, a FIFO does not block, and what is judged is the
///   descriptor that SQLite goes on with. What is left, where fs.protected_hardlinks is 0
///   (see proc(5)): a hard link that comes and goes in step with eight looks at it.
/// - A journal that names a super-journal is not rolled back: SQLite would delete the file
///   of that name, and whoever may write the journal chooses it.
/// - A database in WAL mode is not opened: its shared memory is opened in other ways.
///
/// The second look, at the descriptor, needs SQLite's system call "open" to be overridden.
/// That is done once for the whole process, and changes nothing for other databases. When
/// somebody else resets it, the look before opening (and O_NOFOLLOW, which SQLite always
/// sets) is what is left: a FIFO or a hard link that is swapped in after it gets through.
const char* mail_auth_vfs() noexcept;

/// Makes a path of which only the last component may be a link: SQLITE_OPEN_NOFOLLOW
/// refuses a link anywhere, but a host may well have its directories as links.
///
/// \param resolved  receives the path with its directory part resolved, see realpath(3)
/// \return `resolved`, or the path as it is when it cannot be resolved, because the
///         directory is not there, for example
const char* resolve_directory(const char* path, char (&resolved)[PATH_MAX]) noexcept;

} // namespace torva::maildb
