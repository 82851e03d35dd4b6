#include "ctl/findings/HostFindings.h"
#include "ctl/host/PanelRun.h"

#include <algorithm>
#include <iterator>

namespace torva::ctl {

namespace {

/// What becomes of the mail when an operator's entry has the name of one that the run would
/// install: the run leads it there all the same.
struct Consequence {
    const char* key;
    const char* text;
};

const Consequence consequences[] = {
    {"127.0.0.1:10025/inet",
     "all mail that comes by SMTP goes there, not to the panel's queue program, and is treated as "
     "that entry says"},
    {"127.0.0.1:10026/inet", "all mail that leaves the panel's queue program goes there, and is "
                             "treated as that entry says"},
    {"127.0.0.1:10027/inet",
     "mail of programs on this host, and what has come by SMTP, goes there, "
     "not to the panel's queue program"},
    {"torva_saslauthd/unix",
     "the passwords of SMTP clients are not checked by the panel's program"},
    {"tlsmgr/unix", "TLS will not work"},
};

std::string consequenceOf(const std::string& key) {
    const auto* found = std::find_if(std::begin(consequences), std::end(consequences),
                                     [&](const Consequence& one) { return key == one.key; });
    return found == std::end(consequences) ? std::string() : found->text;
}

/// Whether an entry does what the run's own would do. Options of the TLS manager are an
/// operator's business.
bool isAsOfRun(const MasterCfTextEntry& entry, const PanelService& own) {
    const std::string command = own.command;
    const std::string arguments = own.arguments;
    return arguments.empty() ? entry.command() == command
                             : entry.commandLine() == command + " " + arguments;
}

/// The name of an inet service in its parts.
struct Endpoint {
    std::string host; ///< with its colon, as it is written; empty: every address
    std::string port;
};

Endpoint endpointIn(const std::string& name) {
    const std::string::size_type port = name.rfind(':') + 1; // 0 without a colon
    return {name.substr(0, port), name.substr(port)};
}

bool isTaken(const std::string& port, const MasterCfText& masterCf) {
    const auto& entries = masterCf.entries();
    return std::any_of(entries.begin(), entries.end(), [&](const MasterCfTextEntry& entry) {
        return entry.type() == "inet" && endpointIn(entry.name()).port == port;
    });
}

/// A port for the operator's entry that no other one has.
std::string otherPort(const std::string& port, const MasterCfText& masterCf) {
    int other = std::stoi(port) + 100;
    while (isTaken(std::to_string(other), masterCf)) {
        ++other;
    }
    return std::to_string(other);
}

std::string adviceOn(const MasterCfTextEntry& entry, const MasterCfText& masterCf) {
    const std::string then = "then apply, which adds the panel's";
    if (entry.type() != "inet") {
        return "postconf -MX " + entry.key() + "; " + then;
    }
    const Endpoint endpoint = endpointIn(entry.name());
    return "postconf -F " + entry.key() + "/service=" + endpoint.host +
           otherPort(endpoint.port, masterCf) + "; have what sends mail to port " + endpoint.port +
           " (amavis by $forward_method, a content_filter) use that port; " + then;
}

/// What becomes of an entry that has another name, but the port of one that the run installs.
/// Empty: it has not.
std::string troubleOfPort(const MasterCfTextEntry& entry) {
    const Endpoint endpoint = endpointIn(entry.name());
    const PanelService* own = panelServiceOf("127.0.0.1:" + endpoint.port + "/inet");
    if (entry.type() != "inet" || own == nullptr) {
        return std::string();
    }
    if (endpoint.host == "[127.0.0.1]:") {
        return std::string("is ") + own->key + " for Postfix, which starts only one of them";
    }
    if (endpoint.host == "localhost:") {
        return std::string("shares its port with ") + own->key + ": each gets a part of what comes";
    }
    return endpoint.host.empty()
               ? std::string("shares its port with ") + own->key + ", which gets what comes to it"
               : std::string();
}

} // namespace

void findKeptServices(const MasterCfText& masterCf, Findings& findings) {
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        const PanelService* own = panelServiceOf(entry.key());
        std::string trouble;
        if (own == nullptr) {
            trouble = troubleOfPort(entry);
        } else if (!own->replaces && !isAsOfRun(entry, *own)) {
            trouble = "is not the panel's, but runs " + entry.commandLine() +
                      ": the run keeps it; " + consequenceOf(entry.key());
        }
        if (!trouble.empty()) {
            findings.warning("service", entry.key() + " " + trouble, adviceOn(entry, masterCf));
        }
    }
}

} // namespace torva::ctl
