// The lines of the log that one attempt to send has left. While it is offered, other
// messages are under way; their lines are about other things. Pure.
#pragma once

#include "ctl/rehearsal/Attempt.h"
#include "ctl/rehearsal/LogLine.h"

#include <vector>

namespace torva::ctl::rehearsal {

/// The lines of the server, from its "connect from" on, and those about the queue ids that it
/// gave to the message; of sendmail(1), its own. Empty when it cannot be told which server
/// took the connection, because several connections came from this host meanwhile.
///
/// \param log  the whole log
std::vector<LogLine> linesOfDialogue(const std::vector<LogLine>& log, const Attempt& attempt);

/// The line in which Postfix logs its refusal; after a fault of the server, the one with the
/// cause. Empty: there is none that is surely about this attempt.
LogLine lineOfRefusal(const std::vector<LogLine>& log, const Attempt& attempt);

} // namespace torva::ctl::rehearsal
