// Repairs $myhostname and $mydomain: Postfix needs the fully qualified name of the host in
// the first and its domain in the second.
#pragma once

#include <string>

namespace torva::app {

/// The text after the first "." of a name; empty when there is none.
std::string derivedDomain(const std::string& name);

/// The first line that "hostname -f" prints, without white space at both ends; empty when
/// it cannot be run or prints nothing. Its exit status is ignored.
std::string fullHostName();

/// Repairs $myhostname when it has no ".": with the output of "hostname -f", or
/// "localhost.localdomain" for "localhost". Then $mydomain becomes the domain of that name,
/// if it has none with a "." and the name has a domain. If "hostname -f" prints nothing, a
/// warning goes to standard error and nothing is changed.
///
/// \param name  value of $myhostname
/// \return the new value of $myhostname
/// \throws PostfixConfigurationError  a parameter cannot be read or written
std::string repairHostName(const std::string& name);

} // namespace torva::app
