// What Postfix's log says about one message after it is queued. Pure: lines in, result out.
// The replies to the client before that are SmtpDialogue.h.
#pragma once

#include "ctl/rehearsal/LogLine.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// One attempt to deliver to one recipient.
struct Delivery {
    std::string recipient; ///< after all rewriting
    std::string relay;     ///< delivery agent, or "NAME[ADDRESS]:PORT", or "none"
    std::string status;    ///< "sent", "deferred", "bounced", "expired"; "held" and
                           ///< "discarded" by a rule, of the whole message
    std::string reason;    ///< in Postfix's words, without the parentheses
    LogLine line;
};

/// What happened to a message.
struct MessageTrail {
    /// Only final ones, not those to a filter that returned the message to Postfix, and not
    /// forwards within this host.
    std::vector<Delivery> deliveries;
    bool queued = false;  ///< whether it was in any queue
    bool settled = false; ///< whether nothing more happens without a new attempt
    LogLine last;         ///< last line about a part of it that is not settled, otherwise
                          ///< about any; empty: none
};

/// Follows a message through the log, even if a filter or an alias queues it again: it then
/// keeps its Message-ID, with which cleanup(8) logs each new queue id.
///
/// \param messageId  with its angle brackets
MessageTrail followMessage(const std::vector<LogLine>& log, const std::string& messageId);

} // namespace torva::ctl::rehearsal
