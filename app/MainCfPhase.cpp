#include "app/MainCfPhase.h"

#include "app/HostName.h"
#include "app/Progress.h"
#include "app/SystemAliases.h"
#include "torva/libc/panel_conf.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/postfix/params/RelayPolicy.h"
#include "torva/postfix/tables/DomainManager.h"
#include "torva/postfix/tables/PopUser.h"
#include "torva/postfix/tables/ShieldedIndex.h"

#include <string>

namespace torva::app {

using mail::postfix::PostfixParameters;

namespace {

struct Step;

/// The common state of the steps.
struct Context {
    PostfixParameters& parameters;
    std::string hostName; ///< $myhostname, repaired
};

/// One step: the printed text (null: nothing), the action, and its arguments.
struct Step {
    const char* text;
    void (*action)(Context&, const Step&);
    const char* parameter = nullptr;
    const char* value = nullptr;
    const char* table = nullptr;
};

void set(Context& run, const Step& step) {
    run.parameters.setParameter(step.parameter, step.value);
}

void append(Context& run, const Step& step) {
    run.parameters.addToListParameter(step.parameter, step.value);
}

void appendPair(Context& run, const Step& step) {
    run.parameters.addRestriction(step.parameter, step.value, step.table);
}

void readHostName(Context& run, const Step& step) {
    run.hostName = run.parameters.getParameter(step.parameter);
}

void repairHostNames(Context& run, const Step&) {
    run.hostName = repairHostName(run.hostName);
}

/// The panel's alias table is in $virtual_alias_maps already, so a reference to that
/// includes it.
void checkVirtualAliasDomains(Context& run, const Step& step) {
    const std::string domains = run.parameters.getParameter(step.parameter);
    if (domains.find("$virtual_alias_maps") == std::string::npos) {
        append(run, step);
    }
}

void checkSystemAliases(Context&, const Step&) {
    SystemAliases aliases;
    aliases.check("alias_maps");
    aliases.check("alias_database");
}

void setCertificate(Context& run, const Step& step) {
    const std::string directory = run.parameters.getParameter("config_directory");
    run.parameters.setParameter(step.parameter, directory + "/" + step.value);
}

/// Mail to the host's own name reaches the mailboxes of the given domain.
void createHostDomain(Context& run, const Step& step) {
    const std::string& host = run.hostName;
    if (host == "localhost" || host.compare(0, 10, "localhost.") == 0) {
        return;
    }
    run.parameters.removeFromListParameter(step.parameter, host);
    // This run has created the table: who holds the lock of its index wants to stop us.
    mail::postfix::ShieldedIndex index =
        mail::postfix::shieldForChanges("hash:/var/spool/postfix/torva/virtual");
    mail::postfix::DomainManager().addAliasDomain(step.value, host);
    index.letGo();
}

void closeRelay(Context&, const Step&) {
    mail::postfix::closeRelay();
}

void setMailboxBase(Context& run, const Step& step) {
    run.parameters.setParameter(step.parameter, panel_conf_get(TORVA_MAILNAMES_D));
}

void setPopUserId(Context& run, const Step& step) {
    const uid_t id = mail::postfix::popUser().pw_uid;
    run.parameters.setParameter(step.parameter, step.value + std::to_string(id));
}

void setPopGroupId(Context& run, const Step& step) {
    const gid_t id = mail::postfix::popUser().pw_gid;
    run.parameters.setParameter(step.parameter, step.value + std::to_string(id));
}

// clang-format off
const Step steps[] = {
    {" enabling SMTP on all network interfaces",
     set, "inet_interfaces", "all"},
    {nullptr,
     readHostName, "myhostname"},
    {" make sure $myhostname and $mydomain are configured properly (FQDN)",
     repairHostNames},
    {" appending Torva Virtual Domains DB to $virtual_mailbox_domains",
     append, "virtual_mailbox_domains", "hash:/var/spool/postfix/torva/virtual_domains"},
    {" appending Torva Virtual Aliases DB to $virtual_alias_maps",
     append, "virtual_alias_maps", "hash:/var/spool/postfix/torva/virtual"},
    {" verifying that Virtual Aliases Domains configured properly",
     checkVirtualAliasDomains, "virtual_alias_domains", "hash:/var/spool/postfix/torva/virtual"},
    {" appending Torva Virtual Mailboxes DB to $virtual_mailbox_maps",
     append, "virtual_mailbox_maps", "hash:/var/spool/postfix/torva/vmailbox"},
    {" verifying that system aliases configured properly",
     checkSystemAliases},
    {" appending Torva-specific Local Aliases DB to $alias_maps",
     append, "alias_maps", "hash:/var/spool/postfix/torva/aliases"},
    {" appending Torva-specific transport DB to $transport_maps",
     append, "transport_maps", "hash:/var/spool/postfix/torva/transport"},
    {" set path to TLS certificate",
     setCertificate, "smtpd_tls_cert_file", "postfix_default.pem"},
    {" set path to TLS certificate",
     set, "smtpd_tls_key_file", "$smtpd_tls_cert_file"},
    {" configure \"relaxed\" TLS mode for incoming messages, if supported by Postfix",
     set, "smtpd_tls_security_level", "may"},
    {" enabling TLS support for incoming messages",
     set, "smtpd_use_tls", "yes"},
    {" configure \"relaxed\" TLS mode for outgoing messages, if supported by Postfix",
     set, "smtp_tls_security_level", "may"},
    {" disabling TLS support for outgoing messages",
     set, "smtp_use_tls", "no"},
    {" increase smtpd timeout for waiting processing of large messages",
     set, "smtpd_timeout", "3600s"},
    {" increase smtpd proxy timeout for waiting processing of large messages",
     set, "smtpd_proxy_timeout", "3600s"},
    {nullptr,
     append, "mynetworks", "127.0.0.0/8"},
    {" appending Torva SMTP Blacklists DB and sasl permits to $smtpd_sender_restrictions",
     appendPair, "smtpd_sender_restrictions",
     "check_sender_access", "hash:/var/spool/postfix/torva/blacklists"},
    {" appending sasl permit key to $smtpd_sender_restrictions",
     append, "smtpd_sender_restrictions", "permit_sasl_authenticated"},
    {" appending sasl permits to $smtpd_sender_restrictions",
     appendPair, "smtpd_sender_restrictions",
     "check_client_access", "pcre:/var/spool/postfix/torva/non_auth.re"},
    {" creating virtual alias domain for this host hostname",
     createHostDomain, "mydestination", "localhost.localdomain"},
    {" enabling XFORWARD for SMTP daemon",
     set, "smtp_send_xforward_command", "yes"},
    {" restricting XFORWARD to localhost",
     set, "smtpd_authorized_xforward_hosts", "127.0.0.0/8"},
    {" enabling SASL authentication in SMTPD",
     set, "smtpd_sasl_auth_enable", "yes"},
    {" set relaying to closed state",
     closeRelay},
    {" configuring Virtual Mailboxes root directory",
     setMailboxBase, "virtual_mailbox_base"},
    {" configuring Virtual delivery agent user ID",
     setPopUserId, "virtual_uid_maps", "static:"},
    {" configuring Virtual delivery agent group ID",
     setPopGroupId, "virtual_gid_maps", "static:"},
};
// clang-format on

} // namespace

void mainCfPhase(const Progress& progress) {
    progress.header("Adjusting Postfix server configuration for Torva:");
    Context run{PostfixParameters::instance(), std::string()};
    for (const Step& step : steps) {
        progress.step(step.text, [&] { step.action(run, step); });
    }
}

} // namespace torva::app
