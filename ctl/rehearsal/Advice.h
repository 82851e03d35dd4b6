// What to do about a message that was not delivered. One table: a mark in the words of
// Postfix, and the advice that helps.
#pragma once

#include "ctl/rehearsal/DeliveryFindings.h"

#include <string>

namespace torva::ctl::rehearsal {

/// Advice for a message that was not delivered; empty when the words of Postfix are all
/// there is.
///
/// \param evidence  the reply, the reason and the lines of the log about it
std::string adviceFor(const std::string& evidence, const Surroundings& around);

/// The part of it that holds for a service, too: what is wrong on the host itself.
std::string adviceForService(const std::string& evidence);

} // namespace torva::ctl::rehearsal
