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
    {"master_spawn: exec", "Look at daemon_directory, and whether Postfix is installed whole."},
};

// Problems of a message, on the host or only in the private world.
const char* const noNameServers =
    "There are no name servers in the private world: this tells nothing about the host.";
const std::vector<Known> obstacles = {
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
    const std::string advice = adviceForService(evidence);
    return advice.empty() ? lookUp(obstacles, evidence) : advice;
}

std::string adviceForService(const std::string& evidence) {
    return lookUp(causes, evidence);
}

} // namespace torva::ctl::rehearsal
