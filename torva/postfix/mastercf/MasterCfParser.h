// The syntax of master.cf, see master(5), from bytes to lines and services. The
// grammar itself is in the source file; how the bytes come from a file is
// MasterCfReader.h.
#pragma once

#include "torva/postfix/mastercf/MasterCfLines.h"

namespace torva::mail::postfix {

/// Parses a text in master.cf syntax.
///
/// \param first   beginning of the text
/// \param last    its end; an empty text is one empty line
/// \param target  where lines and services are appended
/// \return whether the whole text is in this syntax; if not, the target holds what
///         comes before the first line that is not
/// Takes time linear in the length of the text.
bool parseMasterCf(const char* first, const char* last, MasterCfLines& target);

/// The characters of service names, those of words, and those that separate words.
bool isNameCharacter(char c);
bool isWordCharacter(char c);
bool isBlank(char c);

/// The columns of a service, in their order.
enum class MasterCfField { name, type, private_, unpriv, chroot, wakeup, maxproc, words };

/// How far parsing got in a text.
struct MasterCfProgress {
    bool whole = false;         ///< the whole text is in this syntax
    const char* stop = nullptr; ///< where parsing stopped; for a service that lacks a
                                ///< column: the first non-blank character of its line
    MasterCfField field = MasterCfField::name; ///< the last column that was tried
    const char* fieldAt = nullptr;             ///< where it was tried; null: none was
};

/// Parses a text like parseMasterCf() does, to find out where it is refused.
/// MasterCfDiagnosis.h says that in words.
MasterCfProgress progressOfMasterCf(const char* first, const char* last);

} // namespace torva::mail::postfix
