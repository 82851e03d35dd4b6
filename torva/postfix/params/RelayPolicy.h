// The panel's relay policies: who may send mail through this host to elsewhere.
// Each writes main.cf through PostfixParameters.h, whose errors pass through; a
// failure in a later step leaves the earlier ones applied. The table that every
// policy consults, "pcre:/var/spool/postfix/torva/no_relay.re", is not written
// here; the blacklist of senders is torva/postfix/tables/Blacklist.h.
//
// While a tool of Postfix runs here, every child of the process is reaped, the caller's
// own among them: see torva/process/Pipe.h.
#pragma once

namespace torva::mail::postfix {

/// Relays for "mynetworks" only.
void closeRelay();

/// Relays for everybody.
void openRelay();

/// Whether clients authenticate through SASL.
enum class SaslAuthentication { off, on };

/// Relays for "mynetworks", which loses the table of POP locks, and with SASL for
/// authenticated clients too.
void relayAfterAuthentication(SaslAuthentication sasl);

} // namespace torva::mail::postfix
