// What an attempt to relay proves about the host: a refusal counts only if it is one of
// relaying. Pure.
#pragma once

#include "ctl/rehearsal/SmtpDialogue.h"

namespace torva::ctl::rehearsal {

/// What the end of the attempt proves.
enum class RelayProof {
    refused,    ///< this host does not relay for strangers
    accepted,   ///< it does: the recipient was accepted, whatever became of the message
    none,       ///< nothing: something else was refused, for example the client
    noneForNow, ///< nothing: the next attempt may be accepted, as with greylisting
    noneByFault ///< nothing: the server failed, or gave no answer
};

/// Judges by the step and the words of the reply. With "smtpd_delay_reject" a refusal of the
/// client comes at RCPT, too; Postfix tells with each refusal what it has refused.
RelayProof judgeRelaying(const SmtpOutcome& outcome);

/// Whether a reply tells of a fault, such as "451 4.3.5 Server configuration error": the
/// server did not decide.
bool isServerFault(const SmtpReply& reply);

} // namespace torva::ctl::rehearsal
