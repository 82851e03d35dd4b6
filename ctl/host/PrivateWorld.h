// The private world of scripts/sandbox, from inside: makes it look like this host, and
// protects the rest of the host.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Whether this process runs in such a world; and whether that has its own namespaces, and
/// is not a chroot on a copied tree.
bool inPrivateWorld();
bool hasNamespaces();

/// The names and addresses of a host that a run and Postfix use, as three texts for a
/// command line.
struct HostNames {
    std::string node;      ///< uname -n
    std::string full;      ///< hostname -f; may be empty
    std::string addresses; ///< lines "INTERFACE ADDRESS/BITS [nodad]"
};

/// Those of the host itself; call it there.
HostNames namesOfHost();

/// Gives the private world these names and addresses.
///
/// \return what failed, a line each
std::vector<std::string> imitate(const HostNames& names);

/// Makes everything that a run or Postfix may write private, and every other mount
/// read-only: an error is better than a change to the host. Only with namespaces.
///
/// \throws std::runtime_error  a directory cannot be made private
void coverRest(const Postfix& postfix);

} // namespace torva::ctl
