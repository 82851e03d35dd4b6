// The place of the outside client: a network namespace of its own, joined to this one
// by a cable with an address at each end, and to nothing else. See veth(4).
#pragma once

#include "ctl/rehearsal/MailLog.h"
#include "torva/process/Descriptor.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// The two ends of the cable, as dotted quads.
struct LinkAddresses {
    std::string server; ///< this world's
    std::string client; ///< outside
};

/// Addresses of a documentation network (RFC 5737) that this host knows nothing of, so
/// that its Postfix takes the client for what it is, a stranger.
///
/// \param localAddresses  addresses of this host
/// \param trusted         value of "mynetworks"
LinkAddresses chooseAddresses(const std::vector<std::string>& localAddresses,
                              const std::string& trusted);

/// The same for this host as it is now.
LinkAddresses chooseAddresses(const std::string& trusted);

class OutsideNetwork {
public:
    /// Makes the namespace and lays the cable. /proc has to show this process as 1.
    ///
    /// \throws SystemError         "open", "unshare", "setns"
    /// \throws std::runtime_error  the words of ip(8), in one line
    OutsideNetwork(MailLog& log, const LinkAddresses& addresses, const Deadline& deadline);

    /// A TCP socket whose packets start outside.
    /// \throws SystemError  "setns", "socket"
    process::Descriptor openSocket() const;

private:
    process::Descriptor inside_;
    process::Descriptor outside_;
};

} // namespace torva::ctl::rehearsal
