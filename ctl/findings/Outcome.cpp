#include "ctl/findings/HostFindings.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/ToolWords.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <map>
#include <netdb.h>
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

/// Whether findKeptServices() tells of whatever else has its endpoint.
bool isInstalledIfMissing(const std::string& key) {
    const PanelService* own = panelServiceOf(key);
    return own != nullptr && !own->replaces;
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
        if (!isNew && !isInstalledIfMissing(key) && !isInstalledIfMissing(other->second)) {
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

} // namespace

void findOutcome(const Postfix& postfix, const MasterCfText& masterCf,
                 const std::vector<std::string>& mapTypes, Findings& findings) {
    const Services services = servicesAfterRun(masterCf);
    findEndpoints(services, findings);
    findProtocols(postfix, services, findings);
    findKeptServices(masterCf, findings);
    findDaemons(postfix, services, findings);
    findings.fine("service", "endpoints and programs");
    findMaps(postfix, masterCf, mapTypes, findings);
    findHostMail(postfix, findings);
}

} // namespace torva::ctl
