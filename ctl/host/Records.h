// The records of the panel's tables, and those that a run drops.
#pragma once

#include "ctl/host/PanelRun.h"
#include "ctl/host/Postfix.h"

#include <map>
#include <string>
#include <vector>

namespace torva::ctl {

using Records = std::map<std::string, std::string>;
using RecordsByTable = std::map<std::string, Records>; ///< by name of the table

/// The records of the tables that a run empties, as postmap(1) lists them; none for a
/// table that does not exist. Takes no lock.
///
/// \throws std::runtime_error  Postfix does not read main.cf, or postmap failed, with the
///         message; or Postfix reads the tables as another type now, and a table exists in the
///         former type only: a run would drop its records unseen
/// \throws LockedIndex  another process holds the lock of a table, see OpenIndex.h
RecordsByTable readRecords(const Postfix& postfix);

/// The records of `before` whose keys are not in `now`.
RecordsByTable missingRecords(const RecordsByTable& before, const RecordsByTable& now);

/// Adds records to their tables.
///
/// \return keys that postmap does not accept from its input: those with white space
/// \throws std::exception  some records may have been written
std::vector<std::string> putBack(const RecordsByTable& records);

/// "3 in virtual, 1 in transport"; empty for none.
std::string countedRecords(const RecordsByTable& records);

} // namespace torva::ctl
