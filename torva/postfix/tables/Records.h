// The records of lookup tables, and the parts of a table's name.
#pragma once

#include <list>
#include <string>
#include <utility>

namespace torva::mail::postfix {

/// A key and a value, both without line breaks, the key without white space.
using Record = std::pair<std::string, std::string>;
using Records = std::list<Record>;
using Keys = std::list<std::string>;

/// The source file of a table: the text after the first ":" of "type:path".
std::string tableFile(const std::string& table);

/// Refuses names that postmap would not take for a table.
///
/// \throws std::invalid_argument "not a table: NAME": it is not "type:path" with both
///         non-empty, or begins with "-"
void requireTableName(const std::string& table);

} // namespace torva::mail::postfix
