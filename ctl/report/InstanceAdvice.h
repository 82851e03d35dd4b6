// Advice for one of several instances of Postfix.
#pragma once

#include <string>

namespace torva::ctl {

/// The advice with "MAIL_CONFIG=DIRECTORY" before each command of Postfix and of this program,
/// so that it can be carried out as it stands. A command is at the beginning, or behind
/// ": ", "; ", "&& ", "then ", "or ", "run " or "sudo ".
///
/// \param directory  of the configuration; empty: the usual one, nothing is added
std::string adviceFor(const std::string& directory, const std::string& advice);

} // namespace torva::ctl
