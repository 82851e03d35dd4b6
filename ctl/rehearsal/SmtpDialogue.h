// One message handed to an SMTP server, command by command, up to its verdict. How
// bytes travel and how long that may take is the channel's business.
#pragma once

#include "ctl/rehearsal/SmtpReply.h"

#include <string>

namespace torva::ctl::rehearsal {

/// The way to a server, for commands and replies.
class SmtpChannel {
public:
    virtual ~SmtpChannel() = default;

    /// Sends bytes as they are; a failure shows in the next await().
    virtual void send(const std::string& bytes) = 0;

    /// Waits for the next reply.
    ///
    /// \return false: there is none; failure() tells why
    virtual bool await(SmtpReply& reply) = 0;

    /// Why there was no reply, for example "the server closed the connection".
    virtual std::string failure() const = 0;
};

/// What is sent.
struct SmtpMessage {
    std::string helo;      ///< the client's name for EHLO
    std::string sender;    ///< address without angle brackets
    std::string recipient; ///< the same
    std::string text;      ///< header and body; lines end with "\n"
};

/// How it ended.
struct SmtpOutcome {
    bool accepted = false; ///< the server has taken the message
    SmtpReply reply;       ///< the reply that decided; of code 0 without one
    std::string step;      ///< what was answered: "greeting", "EHLO", "MAIL", "RCPT",
                           ///< "DATA", "message"
    std::string failure;   ///< why there was no reply; empty when there was one
};

/// Offers the message; ends with the first reply that refuses. Takes its leave with
/// QUIT, whose reply it does not wait for.
SmtpOutcome offerMessage(SmtpChannel& channel, const SmtpMessage& message);

} // namespace torva::ctl::rehearsal
