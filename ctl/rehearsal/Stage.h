// What happens in the inner world, from its first mount to the last finding. Runs as
// process 1 of a process namespace, in its own mount namespace; Rehearsal.cpp starts and
// ends it.
#pragma once

#include "ctl/rehearsal/Rehearsal.h"

#include <functional>
#include <string>

namespace torva::ctl::rehearsal {

/// Takes the records of a stage, see FindingWire.h.
using Report = std::function<void(const std::string& record)>;

/// Creates the inner world, starts Postfix in it, sends the messages, reports. Does not stop
/// Postfix: it ends with this process, and nothing needs to be saved.
///
/// \throws SystemError, std::runtime_error  the rehearsal failed; findings so far were
///         reported
void playStage(const RehearsalPlace& place, const Report& report);

} // namespace torva::ctl::rehearsal
