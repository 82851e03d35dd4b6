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

} // namespace torva::mail::postfix
