// The network of the outside client: a separate network namespace, connected only to this
// one, by a virtual cable with an address at each end. See veth(4).
#pragma once

#include "ctl/rehearsal/MailLog.h"
#include "torva/process/Descriptor.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// The two ends of the cable, as dotted quads.
struct LinkAddresses {
    std::string server; ///< of this world
    std::string client; ///< outside
};

/// Addresses from a documentation network (RFC 5737) that this host does not use or trust,
/// so that the client is a stranger to its Postfix.
///
/// \param localAddresses  addresses of this host
/// \param trusted         value of "mynetworks"
LinkAddresses chooseAddresses(const std::vector<std::string>& localAddresses,
                              const std::string& trusted);

/// The same for this host as it is now.
LinkAddresses chooseAddresses(const std::string& trusted);

class OutsideNetwork {
public:
    /// Creates the namespace and the cable. This process must be 1 in /proc.
    ///
    /// \throws SystemError         "open", "unshare", "setns"
    /// \throws std::runtime_error  the message of ip(8), in one line
    OutsideNetwork(MailLog& log, const LinkAddresses& addresses, const Deadline& deadline);

    /// A TCP socket in the outside namespace.
    /// \throws SystemError  "setns", "socket"
    process::Descriptor openSocket() const;

private:
    process::Descriptor inside_;
    process::Descriptor outside_;
};

} // namespace torva::ctl::rehearsal
