// The panel's relay policies: who may send mail through this host to other hosts.
// Each changes main.cf through PostfixParameters.h, whose errors pass through; a failure
// in a later step leaves the earlier ones applied. The table that every policy consults,
// "pcre:/var/spool/postfix/torva/no_relay.re", is not written here; the blacklist of
// senders is torva/postfix/tables/Blacklist.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

namespace torva::mail::postfix {

/// Relays for "mynetworks" only.
void closeRelay();

/// Relays for everybody.
void openRelay();

/// Whether clients authenticate through SASL.
enum class SaslAuthentication { off, on };

/// Relays for "mynetworks", from which the table of POP-before-SMTP locks is removed,
/// and, with SASL, for authenticated clients.
void relayAfterAuthentication(SaslAuthentication sasl);

} // namespace torva::mail::postfix
