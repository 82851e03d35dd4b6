// The rehearsal of "preview --deliver": starts Postfix with the configuration that a run has
// left in the private world, sends four messages, and reports what happens to them. The
// configuration itself is not checked here.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// The world to rehearse in.
struct RehearsalPlace {
    std::string configDirectory; ///< directory of main.cf, an absolute path
    /// host name that outside mail is sent to; empty: $myhostname of the configuration
    std::string hostName;
    bool ownNetwork; ///< whether this private world has its own network
};

/// Starts Postfix in a world inside the private world, sends it four messages (with
/// sendmail to root; from loopback to root and from outside to postmaster at the host
/// name; from outside to a domain that no host serves), and ends it. Takes at most 30
/// seconds.
///
/// \return findings with the subject "delivery", levels ok and warning: one for each
///         message, in that order, with the most informative line of Postfix's log; then
///         one for each missing program of the panel and one for each service that could
///         not start. If Postfix does not start at all, one that says why, instead of the
///         four. Without its own network: one warning, and nothing is done. If the inner
///         world cannot be created: one warning.
/// \throws std::logic_error  this is not the private world of scripts/sandbox:
///         TORVA_SANDBOX is not "namespaces", or /etc, /var, /usr and /run are not
///         separate mounts; nothing was done
/// \throws SystemError  "pipe", "clone", "poll", "read"
///
/// Nothing is left after the call, whether it returns, throws, or its process is killed: no
/// process, no network, no mount, no change to a file. The queue starts empty, and mail in
/// the queue of the host is out of reach. Postfix and its programs see every file system of
/// the private world under a layer that takes all changes and vanishes. Where the kernel
/// cannot mount such a layer, the file system is read-only, except /etc, /var, /usr and
/// /run, which are private already. No packet leaves: there is no route and no name server.
///
/// Programs that Postfix runs by its configuration (aliases such as "|PROGRAM", pipe(8)
/// and spawn(8) services) are run as on the host, with the same rights.
/// Programs that Postfix only connects to are not started.
///
/// Call it with one thread, and without children that other code waits for by SIGCHLD.
std::vector<Finding> rehearse(const RehearsalPlace& place);

} // namespace torva::ctl
