// The syntax of master.cf, see master(5), from bytes to lines and services. The
// grammar itself is in the source file; how the bytes come from a file is
// MasterCfReader.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

namespace torva::mail::postfix {

/// Parses a text in master.cf syntax.
///
/// \param first   begin of the text
/// \param last    its end; an empty text is one empty line
/// \param target  where lines and services are appended
/// \return whether the whole text is in this syntax; if not, the target holds what
///         stood before the first line that is not
/// Takes time linear in the length of the text.
bool parseMasterCf(const char* first, const char* last, MasterCfLines& target);

/// What a name, and what a word of a service, is made of, and what separates words.
bool isNameCharacter(char c);
bool isWordCharacter(char c);
bool isBlank(char c);

} // namespace torva::mail::postfix
