// Why a text is not in the syntax of master.cf that this system takes, in words for the
// person who has to correct it. The syntax itself is MasterCfParser.h; what the reader
// says of a whole file is MasterCfReader.h.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace torva::mail::postfix {

/// The first place at which a text is refused.
struct MasterCfDiagnosis {
    std::size_t line = 0; ///< counted from 1
    std::string reason;   ///< such as "chroot must be y, n or -, not \"Y\""

    /// "line N: REASON"
    std::string text() const;
};

/// \param text  contents of a whole file; one of no bytes is refused, as by the reader
/// \return nothing when the text is taken
/// Takes time linear in the length of the text.
std::optional<MasterCfDiagnosis> diagnoseMasterCf(const std::string& text);

} // namespace torva::mail::postfix
