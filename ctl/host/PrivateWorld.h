// The private world of scripts/sandbox, seen from inside: making it look like this host,
// and keeping everything else of the host out of reach.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Whether this process runs in such a world; and whether that has namespaces of its own,
/// or is a chroot on a copied tree.
bool inPrivateWorld();
bool hasNamespaces();

/// What a run and Postfix ask a host for. As three texts, for a command line.
struct HostNames {
    std::string node;      ///< uname -n
    std::string full;      ///< hostname -f; may be empty
    std::string addresses; ///< lines "INTERFACE ADDRESS/BITS [nodad]"
};

/// Asked on the host itself.
HostNames namesOfHost();

/// Gives the private world these names and addresses.
///
/// \return what it could not have, a line each
std::vector<std::string> imitate(const HostNames& names);

/// Makes everything that a run or Postfix may write private, and every other mount
/// read-only: rather an error than a change of the host. Only with namespaces.
///
/// \throws std::runtime_error  a directory cannot be made private
void coverRest(const Postfix& postfix);

} // namespace torva::ctl
