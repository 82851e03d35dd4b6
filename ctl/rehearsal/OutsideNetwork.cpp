#include "ctl/rehearsal/OutsideNetwork.h"

#include "ctl/rehearsal/WatchedTool.h"
#include "torva/libc/interfaces.h"
#include "torva/process/SystemCall.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <sys/socket.h>

namespace torva::ctl::rehearsal {
namespace {

process::Descriptor currentNetwork() {
    return process::Descriptor(process::systemCall(
        "open", [] { return ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC); }));
}

void enter(const process::Descriptor& network) {
    process::systemCall("setns", [&] { return ::setns(network.get(), CLONE_NEWNET); });
}

// Moves this thread to a network namespace during its lifetime.
class Visit {
public:
    Visit(const process::Descriptor& there, const process::Descriptor& home) : home_(home) {
        enter(there);
    }
    // A failure would leave us in the wrong network, but root's setns(2) does not fail for
    // the namespace that it has come from.
    ~Visit() { ::setns(home_.get(), CLONE_NEWNET); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

private:
    const process::Descriptor& home_;
};

void ip(MailLog& log, const Deadline& deadline, std::vector<std::string> words) {
    words.insert(words.begin(), "ip");
    const ToolOutcome outcome = runWatched(log, words, deadline);
    if (!outcome.succeeded()) {
        // Its sentences become part of one.
        const std::string said = boost::algorithm::trim_right_copy_if(
            outcome.said(), boost::algorithm::is_any_of(".\n "));
        throw std::runtime_error("ip: " + boost::algorithm::replace_all_copy(said, "\n", "; "));
    }
}

// One end: its address, and a route to the other. The prefix length is 32: Postfix may trust
// the networks of its interfaces, and these must not include the client.
void setUpEnd(MailLog& log, const Deadline& deadline, const std::string& device,
              const std::string& address, const std::string& other) {
    ip(log, deadline, {"address", "add", address + "/32", "dev", device});
    ip(log, deadline, {"link", "set", device, "up"});
    ip(log, deadline, {"route", "add", other + "/32", "dev", device});
}

} // namespace

LinkAddresses chooseAddresses(const std::vector<std::string>& localAddresses,
                              const std::string& trusted) {
    const std::vector<std::string> networks = {"203.0.113.", "198.51.100.", "192.0.2."};
    for (const std::string& network : networks) {
        const bool known = trusted.find(network) != std::string::npos ||
                           std::any_of(localAddresses.begin(), localAddresses.end(),
                                       [&network](const std::string& address) {
                                           return address.compare(0, network.size(), network) == 0;
                                       });
        if (!known) {
            return {network + "1", network + "25"};
        }
    }
    return {networks.front() + "1", networks.front() + "25"};
}

LinkAddresses chooseAddresses(const std::string& trusted) {
    const std::unique_ptr<ifaceinfo, void (*)(ifaceinfo*)> interfaces(list_interfaces(nullptr),
                                                                      &free_interfaces);
    std::vector<std::string> addresses;
    for (const ifaceinfo* entry = interfaces.get(); entry != nullptr && entry->name[0] != '\0';
         ++entry) {
        addresses.emplace_back(entry->address_text);
    }
    return chooseAddresses(addresses, trusted);
}

OutsideNetwork::OutsideNetwork(MailLog& log, const LinkAddresses& addresses,
                               const Deadline& deadline)
    : inside_(currentNetwork()) {
    process::systemCall("unshare", [] { return ::unshare(CLONE_NEWNET); });
    {
        // The destructor moves us back, even if something fails.
        outside_ = currentNetwork();
        const Visit visit(outside_, inside_);
        // ip(8) opens this path, because it does not have our descriptor.
        const std::string home = "/proc/1/fd/" + std::to_string(inside_.get());
        ip(log, deadline,
           {"link", "add", "torva-outside", "type", "veth", "peer", "name", "torva-inside", "netns",
            home});
        ip(log, deadline, {"link", "set", "lo", "up"});
        setUpEnd(log, deadline, "torva-outside", addresses.client, addresses.server);
    }
    setUpEnd(log, deadline, "torva-inside", addresses.server, addresses.client);
}

process::Descriptor OutsideNetwork::openSocket() const {
    const Visit visit(outside_, inside_);
    return process::Descriptor(process::systemCall(
        "socket", [] { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }));
}

} // namespace torva::ctl::rehearsal
