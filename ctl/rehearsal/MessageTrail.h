// What Postfix's log tells about one message, from the moment that it is queued. Pure:
// lines in, outcome out. What a client was answered before that is SmtpDialogue.h.
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

/// The way of a message.
struct MessageTrail {
    /// Last stations only: a hand-over to a filter that gave the message back to
    /// Postfix, and a forward within this host, are none.
    std::vector<Delivery> deliveries;
    bool queued = false;  ///< whether any queue has seen it
    bool settled = false; ///< whether nothing more is to come without a new attempt
    LogLine last;         ///< last line about a part of it that is not settled, or else about
                          ///< any; empty: none
};

/// Follows a message through the log, also where a filter or an alias has it queued
/// again: it keeps its Message-ID then, by which cleanup(8) tells each new queue id.
///
/// \param messageId  with its angle brackets
MessageTrail followMessage(const std::vector<LogLine>& log, const std::string& messageId);

} // namespace torva::ctl::rehearsal
