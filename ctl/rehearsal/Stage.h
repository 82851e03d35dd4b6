// What happens in the inner world, from its first mount to the last finding: the story
// of a rehearsal. Runs as process 1 of a process namespace, in a mount namespace of its
// own; who starts and ends it is Rehearsal.cpp.
#pragma once

#include "ctl/rehearsal/Rehearsal.h"

#include <functional>
#include <string>

namespace torva::ctl::rehearsal {

/// Where a stage leaves its records, see FindingWire.h.
using Report = std::function<void(const std::string& record)>;

/// Makes the inner world, starts Postfix in it, sends the messages, reports. Does not
/// stop Postfix: the end of this process does, for there is nothing left to save.
///
/// \throws SystemError, std::runtime_error  something in the way of the rehearsal; what
///         was found until then is reported
void playStage(const RehearsalPlace& place, const Report& report);

} // namespace torva::ctl::rehearsal
