#include "ctl/rehearsal/Advice.h"

#include <algorithm>
#include <vector>

namespace torva::ctl::rehearsal {
namespace {

bool holds(const std::string& text, const std::string& mark) {
    return text.find(mark) != std::string::npos;
}

// Texts in Postfix's messages, and the advice. The first that matches is used, so specific
// ones come before general ones.
struct Known {
    const char* mark;
    const char* advice;
};

// Problems of the host itself.
const std::vector<Known> causes = {
    {"no_relay.re", "The panel writes this table; until then smtpd answers 451 to every client."},
    {"non_auth.re", "The panel writes this table; until then smtpd answers 451 to every client."},
    {"no SASL authentication mechanisms",
     "Install a SASL mechanism (Debian: libsasl2-modules); without one smtpd ends at once."},
    {"unsupported dictionary type",
     "Install the package that brings this type of table (Debian: postfix-TYPE)."},
    {"is unavailable. open database",
     "The index of this table is missing: build it with postmap, that of aliases with newaliases."},
    {"Address already in use",
     "Two services want the same port: comment one of them out in master.cf."},
    {"smaller than message_size_limit",
     "Give mailbox_size_limit at least the value of message_size_limit: postconf "
     "mailbox_size_limit message_size_limit"},
    {"master_spawn: exec", "Look at daemon_directory, and whether Postfix is installed whole."},
};

// Problems of a message, on the host or only in the private world.
const char* const noNameServers =
    "There are no name servers in the private world: this tells nothing about the host.";
const char* const noticed =
    "Look at header_checks, body_checks and the other settings whose names end with _checks.";
const char* const clientLimits =
    "That is one of the limits for clients: postconf | grep '^smtpd_client_.*_limit'";
const std::vector<Known> obstacles = {
    {"Command output: ",
     "The command itself fails: run it by hand, as the user that the service or alias has."},
    {"Command died", "The command itself fails: run it by hand, as the user that the service or "
                     "alias has."},
    {"cannot update mailbox", "Look at the place of the mailbox, its owner and its mode: "
                              "postconf mail_spool_directory home_mailbox"},
    {"maildir delivery failed", "Look at the place of the mailbox, its owner and its mode: "
                                "postconf mail_spool_directory home_mailbox"},
    {"alias database loop", "Two aliases lead to each other: correct them, then run newaliases."},
    {"unknown user: ", "There is no such account: look at the aliases, then run newaliases."},
    {"message file too big",
     "The message is larger than is allowed: postconf -h message_size_limit"},
    {"message size exceeds", "The message is larger than is allowed: postconf -h "
                             "message_size_limit"},
    {"Insufficient system storage",
     "The file system of the queue has less room than these ask for: postconf queue_minfree "
     "message_size_limit"},
    {"STARTTLS command first", "Every client has to use TLS, which programs of the host and some "
                               "mail servers cannot: postconf -e smtpd_tls_security_level=may"},
    {"too much mail from", clientLimits},
    {"too many connections from", clientLimits},
    {"too many recipients from", clientLimits},
    {"deferred transport", "Postfix was told to keep it: postconf -h defer_transports"},
    {"mail transport unavailable", "The service that the transport names is missing in master.cf, "
                                   "or it does not work."},
    {"not allowed to submit mail",
     "Only the users that this names may send with sendmail: postconf -h authorized_submit_users"},
    {"did not end in time", "It is not Postfix's sendmail, or it waits for something: postconf -h "
                            "sendmail_path"},
    {" to subsystem ", "This service is missing in master.cf, or it does not start."},
    {"milter-", "A milter has decided so: look at its configuration and its log."},
    {"reject: header ", noticed},
    {"reject: body ", noticed},
    {"hold: header ", noticed},
    {"hold: body ", noticed},
    {"discard: header ", noticed},
    {"discard: body ", noticed},
    {"Relay access denied", "Postfix does not take this domain for its own: is it in "
                            "mydestination, or a domain of the panel?"},
    {"User unknown", "There is no such recipient: look at the aliases and at the panel's tables."},
    {"Read-only file system",
     "The rehearsal lets nothing be written there: look at this place on the host itself."},
    {"Domain not found", noNameServers},
    {"Host not found", noNameServers},
    {"cannot find your", noNameServers},
    {"no network to the outside",
     "This tells nothing about mail from outside: rehearse where the kernel has veth(4)."},
    {"Connection refused", "Only Postfix is started here. When another program listens there on "
                           "the host, this tells nothing about it."},
    {"No such file or directory",
     "Only Postfix is started here. When the path is a socket of another program, this tells "
     "nothing about it; when it is a file, it is missing."},
    {"Network is unreachable",
     "Mail for this address goes to another host, which cannot be reached from here. If it should "
     "stay: look at transport_maps and relayhost."},
    {"No route to host",
     "Mail for this address goes to another host, which cannot be reached from here. If it should "
     "stay: look at transport_maps and relayhost."},
    {"Client host rejected", "A restriction refuses this client: look at smtpd_client_restrictions "
                             "and smtpd_recipient_restrictions, and at their tables."},
    {"blocked using", "A list of clients has this one: look for reject_rbl_client and the like in "
                      "the smtpd_..._restrictions."},
    {"Helo command rejected", "A restriction refuses the name of this client: look at "
                              "smtpd_helo_restrictions and smtpd_recipient_restrictions."},
    {"Sender address rejected", "A restriction refuses this sender: look at "
                                "smtpd_sender_restrictions and smtpd_recipient_restrictions."},
    {"Recipient address rejected",
     "A restriction refuses this recipient: look at smtpd_recipient_restrictions and "
     "smtpd_relay_restrictions, and at their tables."},
    {"no answer in time",
     "The server waits for a milter, a policy service or a table, or sleeps: look for these in "
     "main.cf. Only Postfix is started here."},
    {"the server closed the connection",
     "The log of the host tells why its smtpd or postscreen ends: journalctl -t postfix/smtpd"},
    {"/cleanup[", noticed},
};

std::string lookUp(const std::vector<Known>& table, const std::string& evidence) {
    const auto found = std::find_if(table.begin(), table.end(), [&evidence](const Known& entry) {
        return holds(evidence, entry.mark);
    });
    return found == table.end() ? "" : found->advice;
}

// The port of "127.0.0.1:10025" with its colon, or what the log calls another service.
std::string markOf(const std::string& service) {
    const std::size_t colon = service.rfind(':');
    return colon == std::string::npos ? "relay=" + service + "," : service.substr(colon);
}

bool concerns(const MissingProgram& program, const std::string& evidence) {
    return holds(evidence, program.path) ||
           std::any_of(program.services.begin(), program.services.end(),
                       [&evidence](const std::string& service) {
                           return holds(evidence, markOf(service));
                       });
}

bool namesNobodysHost(const std::string& evidence) {
    return holds(evidence, "localhost.localdomain") && holds(evidence, "Name service error");
}

// The whole command, with the value that main.cf has.
std::string addToMyDestination(const Surroundings& around, const std::string& name) {
    const std::string separator = around.myDestination.empty() ? "" : ", ";
    return "postconf -e 'mydestination=" + around.myDestination + separator + name + "'";
}

// What a connection that is refused is to: ":10027" in the log, "port 25 of" in our own words.
bool leadsTo(const std::string& service, const std::string& evidence) {
    const std::string port = service.substr(service.rfind(':') + 1);
    return holds(evidence, ":" + port + ":") ||
           ((port == "smtp" || port == "25") && holds(evidence, "port 25 of "));
}

// Nothing listens at a port.
std::string adviceForRefused(const std::string& evidence, const Surroundings& around) {
    for (const std::string& service : around.disabled) {
        if (leadsTo(service, evidence)) {
            return "The service " + service +
                   " stands in master.cf, but is switched off: postconf -h "
                   "master_service_disable";
        }
    }
    if (holds(evidence, "port 25 of ")) {
        return "Nothing of Postfix listens there: look at inet_interfaces, and at the service smtp "
               "in master.cf. Another program that does so on the host is not started here.";
    }
    return {};
}

} // namespace

std::string adviceFor(const std::string& evidence, const Surroundings& around) {
    for (const MissingProgram& program : around.missing) {
        if (program.panels && concerns(program, evidence)) {
            return "The panel's " + program.name() +
                   " is missing: install the panel's mail programs.";
        }
    }
    if (namesNobodysHost(evidence)) {
        return "Mail for root, postmaster and mailer-daemon goes to localhost.localdomain, which "
               "is no domain of this host: " +
               addToMyDestination(around, "localhost.localdomain");
    }
    std::string advice = lookUp(causes, evidence);
    if (advice.empty() && holds(evidence, "Connection refused")) {
        advice = adviceForRefused(evidence, around);
    }
    return advice.empty() ? lookUp(obstacles, evidence) : advice;
}

std::string adviceForService(const std::string& evidence) {
    const std::string advice = lookUp(causes, evidence);
    return advice.empty() ? "Correct what it complains of, then rehearse again." : advice;
}

std::string adviceForAny(const std::string& text) {
    return holds(text, ". Log: ")
               ? "Look at the setting, table or program that the line is about, then rehearse "
                 "again."
               : "Look for these words in the settings (postconf -n), and in the tables and "
                 "programs that they name.";
}

} // namespace torva::ctl::rehearsal
