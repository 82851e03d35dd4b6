// What the lookup tables hold, and how their names are read.
#pragma once

#include <list>
#include <string>
#include <utility>

namespace torva::mail::postfix {

/// Key and value, without line breaks; the key without white space.
using Record = std::pair<std::string, std::string>;
using Records = std::list<Record>;
using Keys = std::list<std::string>;

/// The source file of a table: what follows the first ":" of "type:path".
std::string tableFile(const std::string& table);

/// Refuses what postmap would take for something else than the name of a table.
///
/// \throws std::invalid_argument "not a table: NAME": not of the form "type:path", with
///         neither of them empty, or beginning with "-"
void requireTableName(const std::string& table);

} // namespace torva::mail::postfix
