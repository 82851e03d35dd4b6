// The narrow list of networks that stands in for Postfix's built-in default of
// "mynetworks", which trusts whole subnets of the host. Where it comes into play
// is PostfixParameters::getParameter(); the enumeration is torva/libc/interfaces.h.
#pragma once

#include "torva/libc/interfaces.h"

#include <string>

namespace torva::mail::postfix {

/// The loopback network and the host's own address: "127.0.0.0/8, ADDRESS/32".
/// Asks the kernel on every call; the loopback network alone when that fails.
std::string hostNetworks();

/// The same for a list of interfaces, of which only the first counts; null for
/// none. With no interface but loopback the text is "127.0.0.0/8, /32".
std::string hostNetworks(const ifaceinfo* interfaces);

/// A value of "mynetworks" with Postfix's default in it replaced.
///
/// \param value     the parameter as postconf(1) prints it
/// \param defaults  the built-in default of it
/// \param host      what takes its place
/// \return host when the value is the default or is shorter; host and what follows
///         the default when the value holds it (what stands before it is dropped);
///         else the value
std::string replaceDefaultNetworks(const std::string& value, const std::string& defaults,
                                   const std::string& host);

} // namespace torva::mail::postfix
