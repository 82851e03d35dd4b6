#include "torva/postfix/params/RelayPolicy.h"

#include "torva/postfix/params/ListValue.h"
#include "torva/postfix/params/PostfixParameters.h"

namespace torva::mail::postfix {

namespace {

const char restrictions[] = "smtpd_recipient_restrictions";
const char clientCheck[] = "check_client_access";
const char noRelayTable[] = "pcre:/var/spool/postfix/torva/no_relay.re";
const char popLockTable[] = "hash:/var/spool/postfix/torva/poplock";

/// Sets the restrictions to FIRST, the client check, LAST, step by step, unless they are
/// exactly that already.
void setRestrictions(const char* first, const char* last) {
    PostfixParameters& parameters = PostfixParameters::instance();
    const std::string check = std::string(clientCheck) + " " + noRelayTable;
    if (parameters.getParameter(restrictions) == joinList({first, check, last})) {
        return;
    }
    parameters.setParameter(restrictions, first);
    parameters.addRestriction(restrictions, clientCheck, noRelayTable);
    parameters.addToListParameter(restrictions, last);
}

} // namespace

void closeRelay() {
    setRestrictions("permit_mynetworks", "reject_unauth_destination");
}

void openRelay() {
    setRestrictions("permit", "reject");
}

void relayAfterAuthentication(SaslAuthentication sasl) {
    const bool on = sasl == SaslAuthentication::on;
    PostfixParameters& parameters = PostfixParameters::instance();
    parameters.removeFromListParameter("mynetworks", popLockTable);
    parameters.setParameter("smtpd_sasl_auth_enable", on ? "yes" : "no");
    setRestrictions("permit_mynetworks", on ? "permit_sasl_authenticated, reject_unauth_destination"
                                            : "reject_unauth_destination");
}

} // namespace torva::mail::postfix
