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

/// The columns of a service, in their order.
enum class MasterCfField { name, type, private_, unpriv, chroot, wakeup, maxproc, words };

/// How far the syntax goes in a text.
struct MasterCfProgress {
    bool whole = false;         ///< all of the text is in this syntax
    const char* stop = nullptr; ///< where it ends; in a service that lacks a column: at the
                                ///< first character of its line that is no blank
    MasterCfField field = MasterCfField::name; ///< the column that was tried last
    const char* fieldAt = nullptr;             ///< where it was tried; null: none was
};

/// Parses a text as parseMasterCf() does, to tell where it is refused. What that means
/// in words is MasterCfDiagnosis.h.
MasterCfProgress progressOfMasterCf(const char* first, const char* last);

} // namespace torva::mail::postfix
