// The repair of $myhostname and $mydomain: Postfix wants a fully qualified name of
// the host in the one and the domain of it in the other.
#pragma once

#include <string>

namespace torva::app {

/// The text after the first "." of a name; empty when there is none.
std::string derivedDomain(const std::string& name);

/// First line of what "hostname -f" prints, white space at both ends trimmed; empty
/// when it cannot be run or prints nothing. Its exit status does not count.
std::string fullHostName();

/// Repairs the two parameters, when the name has no ".": with the answer of
/// "hostname -f", or "localhost.localdomain" for "localhost". Without an answer a
/// warning goes to standard error and nothing is changed.
///
/// \param name  value of $myhostname
/// \return the name that $myhostname has now
/// \throws PostfixConfigurationError  a parameter cannot be read or written
std::string repairHostName(const std::string& name);

} // namespace torva::app
