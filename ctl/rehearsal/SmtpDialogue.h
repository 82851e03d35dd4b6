// Sends one message to an SMTP server, command by command, until it is accepted or refused.
// Transport and time-outs are up to the channel.
#pragma once

#include "ctl/rehearsal/SmtpReply.h"

#include <string>

namespace torva::ctl::rehearsal {

/// A channel to a server, for commands and replies.
class SmtpChannel {
public:
    virtual ~SmtpChannel() = default;

    /// Sends bytes as they are; a failure is reported by the next await().
    virtual void send(const std::string& bytes) = 0;

    /// Waits for the next reply.
    ///
    /// \return false: there is none; failure() tells why
    virtual bool await(SmtpReply& reply) = 0;

    /// Why there was no reply, for example "the server closed the connection".
    virtual std::string failure() const = 0;
};

/// A message to send.
struct SmtpMessage {
    std::string helo;      ///< the client's name for EHLO
    std::string sender;    ///< address without angle brackets
    std::string recipient; ///< the same
    std::string text;      ///< header and body; lines end with "\n"
};

/// The result.
struct SmtpOutcome {
    bool accepted = false; ///< the server has accepted the message
    SmtpReply reply;       ///< the last reply; with code 0 if there was none
    std::string step;      ///< the step it belongs to: "greeting", "EHLO", "MAIL", "RCPT",
                           ///< "DATA", "message"
    std::string failure;   ///< why there was no reply; empty when there was one
};

/// Sends the message; stops at the first reply that refuses. Ends with QUIT, without
/// waiting for the reply.
SmtpOutcome offerMessage(SmtpChannel& channel, const SmtpMessage& message);

} // namespace torva::ctl::rehearsal
