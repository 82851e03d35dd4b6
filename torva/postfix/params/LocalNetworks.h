// The narrow list of networks that replaces Postfix's built-in default of "mynetworks",
// which trusts whole subnets of the host. It is used by PostfixParameters::getParameter();
// the enumeration of interfaces is torva/libc/interfaces.h.
#pragma once

#include "torva/libc/interfaces.h"

#include <string>

namespace torva::mail::postfix {

/// The loopback network and the host's own address: "127.0.0.0/8, ADDRESS/32".
/// Asks the kernel on every call; only the loopback network when that fails.
std::string hostNetworks();

/// The same for a list of interfaces, of which only the first counts; null when the
/// enumeration failed. For an empty list, that of a host with nothing but loopback, the
/// text is "127.0.0.0/8, /32".
std::string hostNetworks(const ifaceinfo* interfaces);

/// A value of "mynetworks" in which Postfix's default is replaced.
///
/// \param value     the parameter as postconf(1) prints it
/// \param defaults  its built-in default
/// \param host      the replacement
/// \return host when the value is the default, or is shorter; when the value contains
///         the default, host and the text after the default (text before it is dropped);
///         otherwise the value
std::string replaceDefaultNetworks(const std::string& value, const std::string& defaults,
                                   const std::string& host);

} // namespace torva::mail::postfix
