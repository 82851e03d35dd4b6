// Whether a service that is about to be written will be found again: a file that
// cannot be parsed whole can never be edited again. The syntax itself is
// MasterCfParser.cpp.
// Private to the library: not installed.
#pragma once

#include "torva/postfix/mastercf/MasterCfModule.h"

#include <string>

namespace torva::mail::postfix {

/// Holds a service against the grammar. Its words may contain blanks, at which they
/// are then read as several, or be empty as long as one is not.
///
/// \param module  service entry
/// \param text    formatModule(module)
/// \throws std::invalid_argument "not a service of master.cf: TEXT": the text is not
///         read as one service of this name, type, columns and words. So are an empty
///         name, no words, a line feed anywhere, and whatever the name, a word or a
///         number must not hold ("#", upper-case letters in the name, bytes beyond
///         ASCII, numbers below -1).
void requireReadsBack(const MasterCfModule& module, const std::string& text);

} // namespace torva::mail::postfix
