// The records of the panel's tables, and what a run drops of them.
#pragma once

#include "ctl/host/PanelRun.h"
#include "ctl/host/Postfix.h"

#include <map>
#include <string>
#include <vector>

namespace torva::ctl {

using Records = std::map<std::string, std::string>;
using RecordsByTable = std::map<std::string, Records>; ///< by name of the table

/// The records of the tables that a run empties, as postmap(1) lists them; none of a
/// table that is not there. Takes no lock.
///
/// \throws std::runtime_error  postmap failed, with its words; or Postfix reads the tables
///         as another type now, and a table is there in the former type only: a run would
///         drop its records unseen
RecordsByTable readRecords(const Postfix& postfix);

/// Those of `before` whose keys `now` does not have.
RecordsByTable missingRecords(const RecordsByTable& before, const RecordsByTable& now);

/// Writes records into their tables, beside what is there.
///
/// \return keys that postmap does not take from its input: those with white space
/// \throws std::exception  some records are written, others not
std::vector<std::string> putBack(const RecordsByTable& records);

/// "3 in virtual, 1 in transport"; empty for none.
std::string countedRecords(const RecordsByTable& records);

} // namespace torva::ctl
