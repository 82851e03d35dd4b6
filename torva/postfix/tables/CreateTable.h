// Creates a lookup table, source file and index. Changing an existing table is Postmap.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

#include <string>

namespace torva::mail::postfix {

/// Replaces the source file of a table by the given records, with mode 0644, and builds
/// the indexed table from it (postmap -r). All previous records are gone. When the source
/// is a symbolic link, the link itself is replaced: its target may serve other purposes.
/// Planted index files are removed, and the lock of the index is handled, as by
/// rebuildTable() in Postmap.h.
///
/// \param table    "type:path"; the directory exists
/// \param records  written in their order, one "KEY VALUE" line each
/// \throws std::invalid_argument "not a table: NAME": nothing was changed
/// \throws std::runtime_error "lock(PATH) failed: file is already locked": nothing
///         was changed
/// \throws PostfixDatabaseError "unable to write PATH: REASON": the source file is as it
///         was, unless REASON is "somebody else has put another file in its place"
/// \throws PostfixDatabaseError  postmap failed, with its own text or "unknown error";
///         the source file is the new one
/// \throws PostfixDatabaseError "INDEX is locked by another process (fuser INDEX)", as by
///         rebuildTable(): the source file is the new one
/// \throws SystemError "lock() failed": nothing was changed; or a planted index file
///         cannot be removed, "unable to replace INDEX", or postmap not started: the source
///         file is the new one; or "chmod": so is the index, but others cannot open it
/// No temporary file of ours is left, and no unfinished index of postmap's, not even one
/// that an earlier, killed creation left.
void createTable(const std::string& table, const Records& records);

} // namespace torva::mail::postfix
