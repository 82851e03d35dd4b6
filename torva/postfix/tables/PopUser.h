// The account that owns the panel's mailboxes.
#pragma once

#include <pwd.h>

namespace torva::mail::postfix {

/// Looks up the account "popuser", see getpwnam(3).
///
/// \return its entry; valid until the next look-up of any account
/// \throws SystemError "user popusernot found" when there is none
const passwd& popUser();

} // namespace torva::mail::postfix
