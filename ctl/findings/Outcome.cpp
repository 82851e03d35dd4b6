#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/TouchedPaths.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <map>
#include <netdb.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

/// A service in the configuration after a run.
struct Service {
    std::string isPrivate;
    std::string command;
    bool ofPanel;
};

using Services = std::map<std::string, Service>; ///< by NAME/TYPE

Services servicesAfterRun(const MasterCfText& masterCf) {
    Services services;
    for (const PanelService& service : panelServices()) {
        services[service.key] = {service.isPrivate, service.command, true};
    }
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        const PanelService* own = panelServiceOf(entry.key());
        if (own == nullptr || !own->replaces) {
            services[entry.key()] = {entry.isPrivate(), entry.command(), own != nullptr};
        }
    }
    return services;
}

std::string portNumber(const std::string& port) {
    const servent* service = ::getservbyname(port.c_str(), "tcp");
    return service == nullptr ? port
                              : std::to_string(ntohs(static_cast<std::uint16_t>(service->s_port)));
}

/// The address and port number of an inet service, from its name.
std::string endpointOf(const std::string& name) {
    const std::string::size_type colon = name.rfind(':');
    if (colon == std::string::npos) {
        return ":" + portNumber(name);
    }
    std::string address;
    for (const char character : name.substr(0, colon)) {
        if (character != '[' && character != ']') {
            address += character;
        }
    }
    return address + ":" + portNumber(name.substr(colon + 1));
}

void findPrivateInet(const std::string& key, const Service& service, Findings& findings) {
    if (service.isPrivate != "n") {
        findings.warning("service", key + " is private: Postfix will not start",
                         "postconf -F " + key + "/private=n");
    }
}

void findEndpoints(const Services& services, Findings& findings) {
    std::map<std::string, std::string> keys; // by endpoint
    for (const auto& [key, service] : services) {
        const std::string::size_type slash = key.rfind('/');
        if (key.substr(slash) != "/inet") {
            continue;
        }
        findPrivateInet(key, service, findings);
        const auto [other, isNew] = keys.emplace(endpointOf(key.substr(0, slash)), key);
        if (!isNew) {
            // The run would add its own again: the operator's must be removed.
            const std::string& operators = service.ofPanel ? other->second : key;
            findings.warning("service",
                             key + " and " + other->second +
                                 " are one endpoint: Postfix starts only one of them",
                             "postconf -MX " + operators);
        }
    }
}

/// The services with IPv4 addresses, when Postfix has no such protocol.
void findProtocols(const Postfix& postfix, const Services& services, Findings& findings) {
    const std::string protocols = postfix.value("inet_protocols");
    if (boost::algorithm::to_lower_copy(protocols) != "ipv6") {
        return;
    }
    std::string keys;
    for (const auto& one : services) {
        const std::string::size_type slash = one.first.rfind('/');
        const std::string endpoint = endpointOf(one.first.substr(0, slash));
        in_addr address{};
        if (one.first.substr(slash) == "/inet" &&
            ::inet_pton(AF_INET, endpoint.substr(0, endpoint.rfind(':')).c_str(), &address) == 1) {
            keys += (keys.empty() ? "" : ", ") + one.first;
        }
    }
    findings.warning("service",
                     "inet_protocols = " + protocols + ", but " + keys +
                         " are IPv4 addresses: Postfix will not start",
                     "postconf -e inet_protocols=all");
}

void findDaemons(const Postfix& postfix, const Services& services, Findings& findings) {
    const std::string directory = postfix.value("daemon_directory");
    struct stat status {};
    if (::stat((directory + "/smtpd").c_str(), &status) != 0) {
        findings.warning("service",
                         "daemon_directory, " + directory + ", has no daemons of Postfix",
                         "correct it: postconf -X daemon_directory restores the built-in one");
        return;
    }
    for (const auto& [key, service] : services) {
        const std::string program = directory + "/" + service.command;
        if (!service.command.empty() && service.command[0] != '/' &&
            ::access(program.c_str(), F_OK) != 0) {
            findings.warning("service", key + ": there is no " + program,
                             "install it; until then the service fails");
        }
    }
}

/// Replaces $NAME and ${NAME} by values in main.cf, if they are known.
std::string expanded(const std::string& text, const Postfix& postfix) {
    std::string result;
    for (std::string::size_type at = 0; at < text.size(); ++at) {
        if (text[at] != '$') {
            result += text[at];
            continue;
        }
        const std::string::size_type begin = text.find_first_not_of("({", at + 1);
        const std::string::size_type end = std::min(
            text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789", begin), text.size());
        if (begin == std::string::npos) {
            break;
        }
        result += postfix.value(text.substr(begin, end - begin));
        at = end < text.size() && (text[end] == ')' || text[end] == '}') ? end : end - 1;
    }
    return result;
}

/// The values that may contain tables: those in main.cf and those of the options in master.cf.
std::vector<std::string> valuesWithMaps(const Postfix& postfix, const MasterCfText& masterCf) {
    std::vector<std::string> values;
    for (const auto& setting : postfix.settings) {
        values.push_back(postfix.value(setting.first));
    }
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        for (const std::string& option : entry.options()) {
            values.push_back(expanded(option, postfix));
        }
    }
    return values;
}

/// Whether postalias(1) builds its index, in place of postmap(1).
bool isOfAliases(const MapReference& map, const Postfix& postfix) {
    for (const char* name : {"alias_maps", "alias_database"}) {
        for (const MapReference& one : mapReferences(postfix.value(name))) {
            if (one.text() == map.text()) {
                return true;
            }
        }
    }
    return false;
}

/// The tables that the run itself builds: the panel's and alias databases.
bool isBuiltByRun(const MapReference& map, const Postfix& postfix) {
    const std::vector<AliasDatabase> databases = aliasDatabases(postfix);
    return isAtOrBelow(map.file, tablesDirectory) ||
           std::any_of(databases.begin(), databases.end(), [&](const AliasDatabase& database) {
               return database.type == map.type && database.path == map.file;
           });
}

void findMap(const MapReference& map, const Postfix& postfix, Findings& findings) {
    const std::string file = openedFile({postfix.readAs(map.type), map.file});
    if (::access(file.c_str(), F_OK) == 0) {
        return;
    }
    const std::string elseAdvice = ", or take it out of the configuration";
    const bool hasSource = exists(map.file);
    const std::string build = (isOfAliases(map, postfix) ? "postalias " : "postmap ") + map.text();
    const std::string advice = !isIndexed(map.type) ? "write " + map.file
                               : hasSource          ? build
                                                    : "write " + map.file + " and run " + build;
    findings.warning("map", map.text() + ": there is no " + file, advice + elseAdvice);
}

void findMaps(const Postfix& postfix, const MasterCfText& masterCf, Findings& findings) {
    std::set<std::string> seen;
    for (const std::string& value : valuesWithMaps(postfix, masterCf)) {
        for (const MapReference& map : mapReferences(value)) {
            // Postfix's daemons create those in the data directory.
            if (!isBuiltByRun(map, postfix) &&
                !isAtOrBelow(map.file, postfix.value("data_directory")) &&
                seen.insert(map.text()).second) {
                findMap(map, postfix, findings);
            }
        }
    }
}

/// Whether the domain is in one of Postfix's address classes, see ADDRESS_CLASS_README.
bool isInDomainClass(const std::string& domain, const Postfix& postfix) {
    for (const char* name :
         {"mydestination", "virtual_alias_domains", "virtual_mailbox_domains", "relay_domains"}) {
        for (const std::string& element : listElements(postfix.value(name))) {
            if (boost::algorithm::to_lower_copy(element) == domain) {
                return true;
            }
        }
    }
    return false;
}

void findHostMail(const Postfix& postfix, Findings& findings) {
    const std::string target = "localhost.localdomain";
    const std::string host = postfix.value("myhostname");
    if (host == "localhost" || host.compare(0, 10, "localhost.") == 0 ||
        isInDomainClass(target, postfix)) {
        return;
    }
    const auto set = postfix.settings.find("mydestination");
    const std::string current =
        set == postfix.settings.end() ? "$myhostname, localhost.$mydomain, localhost" : set->second;
    findings.warning("mydestination",
                     "after a run, mail to root@, postmaster@ and mailer-daemon@" + host +
                         " goes to " + target + ", which is in no domain class: it is deferred",
                     "postconf -e 'mydestination=" + current + (current.empty() ? "" : ", ") +
                         target + "'");
}

} // namespace

void findOutcome(const Postfix& postfix, const MasterCfText& masterCf, Findings& findings) {
    const Services services = servicesAfterRun(masterCf);
    findEndpoints(services, findings);
    findProtocols(postfix, services, findings);
    findKeptServices(masterCf, findings);
    findDaemons(postfix, services, findings);
    findings.fine("service", "endpoints and programs");
    findMaps(postfix, masterCf, findings);
    findings.fine("map", "the files of all maps");
    findHostMail(postfix, findings);
    findings.fine("mydestination", "mail to root@, postmaster@, mailer-daemon@");
}

} // namespace torva::ctl
