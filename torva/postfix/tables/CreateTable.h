// Creating a lookup table, source file and index. Changing a table that is
// there is Postmap.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

#include <string>

namespace torva::mail::postfix {

/// Replaces the source file of a table by the given records, mode 0644, and builds
/// the indexed table from it (postmap -r). What the table held is gone. A source that is
/// a symbolic link is replaced itself: what it leads to may be more than this table's.
/// Planted index files are removed, as by a rebuild (Postmap.h).
///
/// \param table    "type:path"; the directory exists
/// \param records  written in their order, one "KEY VALUE" line each
/// \throws std::runtime_error "lock(PATH) failed: file is already locked": nothing
///         was changed
/// \throws PostfixDatabaseError  the source file cannot be written ("unable to
///         write PATH: REASON"), and is as it was, unless REASON is "somebody else has
///         put another file in its place"; or postmap failed (its own text, or
///         "unknown error"), and the source file is the new one
/// \throws SystemError  no lock, an index that cannot be removed, or postmap not
///         started
/// \throws std::invalid_argument "not a table: NAME": nothing was changed
/// No scratch file is left, neither of ours nor of an index that postmap could not
/// finish; one that an earlier, killed creation left is removed.
void createTable(const std::string& table, const Records& records);

} // namespace torva::mail::postfix
