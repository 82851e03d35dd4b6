// Why a text is not in the master.cf syntax that this system accepts, in words for the
// person who has to correct it. The syntax itself is MasterCfParser.h; the errors of
// reading a file are in MasterCfReader.h.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace torva::mail::postfix {

/// The first error in a text.
struct MasterCfDiagnosis {
    std::size_t line = 0; ///< counted from 1
    std::string reason;   ///< such as "chroot must be y, n or -, not \"Y\""

    /// "line N: REASON"
    std::string text() const;
};

/// \param text  contents of a whole file; an empty one is refused, as by the reader
/// \return nothing when the text is accepted
/// Takes time linear in the length of the text.
std::optional<MasterCfDiagnosis> diagnoseMasterCf(const std::string& text);

} // namespace torva::mail::postfix
