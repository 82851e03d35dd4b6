// The panel's blacklist of senders, a table that the sender restrictions in main.cf
// consult. Errors are those of Postmap.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

namespace torva::mail::postfix {

/// Refuses mail from the given addresses or domains.
void addToBlacklist(const Keys& senders);

/// Accepts mail from them again; a sender who is not on the list is no error.
void removeFromBlacklist(const Keys& senders);

/// The senders on the list.
Keys blacklist();

} // namespace torva::mail::postfix
