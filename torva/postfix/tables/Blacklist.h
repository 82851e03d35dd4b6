// The panel's blacklist of senders, the table that main.cf's sender restrictions
// consult. Errors are those of Postmap.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

namespace torva::mail::postfix {

/// Refuses mail from the given addresses or domains.
void addToBlacklist(const Keys& senders);

/// Accepts mail from them again; one that is not listed is no error.
void removeFromBlacklist(const Keys& senders);

/// The senders on the list.
Keys blacklist();

} // namespace torva::mail::postfix
