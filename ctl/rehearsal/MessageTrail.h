// What Postfix's log says about one message after it is queued. Pure: lines in, result out.
// The replies to the client before that are SmtpDialogue.h.
#pragma once

#include "ctl/rehearsal/Attempt.h"
#include "ctl/rehearsal/LogLine.h"

#include <cstddef>
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
    bool found = false;   ///< whether the log has a queue id of it
    bool queued = false;  ///< whether it was in any queue, and not only on the way there
    bool settled = false; ///< whether nothing more happens without a new attempt
    LogLine last;         ///< last line about a part of it that is not settled, otherwise
                          ///< about any; empty: none
};

/// By what a message is recognised.
struct MessageMarks {
    std::string messageId;    ///< with its angle brackets
    std::string queueId = {}; ///< its first, if known: header checks may remove a Message-ID, or
                              ///< discard the message before it is logged
    std::size_t since = 0;    ///< index of the first line of the log that may be about it
};

/// The marks of an offered message. Its queue id is in the reply of an SMTP server, "queued as
/// ID"; what sendmail(1) has left is the first message that pickup(8) takes.
MessageMarks marksOf(const std::vector<LogLine>& log, const Attempt& attempt);

/// Follows a message through the log, even if a filter or an alias queues it again: its new
/// queue id is in the reason of the delivery, and it keeps its Message-ID, with which
/// cleanup(8) logs each new queue id.
MessageTrail followMessage(const std::vector<LogLine>& log, const MessageMarks& marks);

} // namespace torva::ctl::rehearsal
