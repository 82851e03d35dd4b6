// Whether a service that is about to be written can be read back: a file that cannot be
// parsed as a whole can never be edited again. The grammar is in MasterCfParser.cpp.
// Private to the library: not installed.
#pragma once

#include "torva/postfix/mastercf/MasterCfModule.h"

#include <string>

namespace torva::mail::postfix {

/// Checks a service against the grammar. Its words may contain blanks, at which they
/// are then read as several, and may be empty as long as one is not.
///
/// \param module  service entry
/// \param text    formatModule(module)
/// \throws std::invalid_argument "not a service of master.cf: TEXT": the text would not
///         be read as one service with this name, type, columns and words, because of an
///         empty name, no words, a line feed, or a character or number that is not
///         allowed there ("#", upper-case letters in the name, bytes beyond ASCII,
///         numbers below -1)
void requireReadsBack(const MasterCfModule& module, const std::string& text);

} // namespace torva::mail::postfix
