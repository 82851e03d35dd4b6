// One message of a rehearsal, and the result of offering it.
#pragma once

#include "ctl/rehearsal/SmtpDialogue.h"

#include <cstddef>
#include <string>

namespace torva::ctl::rehearsal {

struct Attempt {
    std::string what;         ///< for the reader: "from outside to postmaster@example.net"
    bool relaying = false;    ///< to a domain that this host does not serve: must be refused
    std::string messageId;    ///< with angle brackets
    std::string client;       ///< address from which it is sent by SMTP; empty: by sendmail(1)
    SmtpMessage message;      ///< that is sent by SMTP
    SmtpOutcome outcome;      ///< of sendmail(1): step "sendmail", its message as failure;
                              ///< without a step nothing was sent, the failure tells why
    std::size_t logBegin = 0; ///< index of the first line of the log for its dialogue
    std::size_t logEnd = 0;   ///< index after the last
};

} // namespace torva::ctl::rehearsal
