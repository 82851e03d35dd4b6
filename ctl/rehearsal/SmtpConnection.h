// A TCP connection to an SMTP server, with a deadline. The dialogue is SmtpDialogue.h.
#pragma once

#include "ctl/rehearsal/MailLog.h"
#include "ctl/rehearsal/SmtpDialogue.h"
#include "torva/process/Descriptor.h"

#include <string>

namespace torva::ctl::rehearsal {

/// A TCP socket in this network, for the constructor below.
/// \throws SystemError  "socket"
process::Descriptor openLocalSocket();

class SmtpConnection : public SmtpChannel {
public:
    /// Begins to connect to port 25.
    ///
    /// \param log       is read while this waits; must outlive the object
    /// \param socket    non-blocking, not connected
    /// \param address   of the server, a dotted quad
    /// \param deadline  for the whole dialogue
    SmtpConnection(MailLog& log, process::Descriptor socket, const std::string& address,
                   const Deadline& deadline);

    void send(const std::string& bytes) override;

    /// See SmtpChannel. Without a greeting, it stops a second after Postfix has logged that
    /// it cannot start a server: it does not answer such a connection for a minute.
    bool await(SmtpReply& reply) override;

    std::string failure() const override { return failure_; }

private:
    bool fail(const std::string& text);
    bool receive();

    MailLog& log_;
    process::Descriptor socket_;
    Deadline deadline_;
    std::string address_;
    std::string failure_; // once this is set, nothing more is sent or awaited
    SmtpReplyReader reader_;
    bool connected_ = false;
    bool greeted_ = false;
};

} // namespace torva::ctl::rehearsal
