#include "torva/postfix/params/LocalNetworks.h"

#include <memory>

namespace torva::mail::postfix {

std::string hostNetworks() {
    const std::unique_ptr<ifaceinfo, decltype(&free_interfaces)> interfaces(
        list_interfaces(nullptr), &free_interfaces);
    return hostNetworks(interfaces.get());
}

std::string hostNetworks(const ifaceinfo* interfaces) {
    std::string networks = "127.0.0.0/8";
    if (interfaces != nullptr) {
        networks += ", ";
        networks += interfaces[0].address_text;
        networks += "/32";
    }
    return networks;
}

std::string replaceDefaultNetworks(const std::string& value, const std::string& defaults,
                                   const std::string& host) {
    if (value == defaults || value.size() < defaults.size()) {
        return host;
    }
    const std::string::size_type position = value.find(defaults);
    if (position == std::string::npos) {
        return value;
    }
    return host + value.substr(position + defaults.size());
}

} // namespace torva::mail::postfix
