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

/// The part of it that is also for services: problems of the host itself.
std::string adviceForService(const std::string& evidence);

} // namespace torva::ctl::rehearsal
