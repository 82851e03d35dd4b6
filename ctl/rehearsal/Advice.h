// What to do about a message that was not delivered. One table: a text in Postfix's
// messages, and the advice for it.
#pragma once

#include "ctl/rehearsal/DeliveryFindings.h"

#include <string>

namespace torva::ctl::rehearsal {

/// Advice for a message that was not delivered; empty when there is none.
///
/// \param evidence  the reply, the reason and the lines of the log about it
std::string adviceFor(const std::string& evidence, const Surroundings& around);

/// The same for a service: the problems of the host itself among these, otherwise to correct
/// what it says.
std::string adviceForService(const std::string& evidence);

/// Advice that is right for any message that was not delivered.
///
/// \param text  what was seen, with the line of the log
std::string adviceForAny(const std::string& text);

} // namespace torva::ctl::rehearsal
