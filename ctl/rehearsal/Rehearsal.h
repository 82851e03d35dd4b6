// The rehearsal of "preview --deliver": Postfix is started on the configuration that a
// run has left in the private world, four messages are sent, and what becomes of them
// is told. What a configuration looks like is not judged here, only what mail does.
#pragma once

#include "ctl/report/Finding.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Where to rehearse.
struct RehearsalPlace {
    std::string configDirectory; ///< directory of main.cf, an absolute path
    /// host name that outside mail is sent to; empty: $myhostname of the configuration
    std::string hostName;
    bool ownNetwork; ///< whether this private world has a network of its own
};

/// Starts Postfix in a world inside the private world, sends it four messages (with
/// sendmail to root; from loopback to root and from outside to postmaster at the host
/// name; from outside to a domain that no host serves), and ends it. Takes at most 30
/// seconds.
///
/// \return findings of the subject "delivery", levels ok and warning: one for each
///         message, in that order, with the line of Postfix's log that tells most; then
///         one for each of the panel's programs that is missing and one for each
///         service that could not start. When Postfix does not start at all, one that
///         says why, in place of the four. Without a network of its own: one warning,
///         and nothing is done. What keeps the inner world from being made is one
///         warning, too.
/// \throws std::logic_error  this is not the private world of scripts/sandbox:
///         TORVA_SANDBOX is not "namespaces", or /etc, /var, /usr and /run are no
///         mounts of their own; nothing was done
/// \throws SystemError  "pipe", "clone", "poll", "read"
///
/// Nothing outlives the call, whether it returns, throws, or its process is killed: no
/// process, no network, no mount, no change of a file. The queue starts empty, and mail
/// that waits in the queue of the host is out of reach. Postfix, and what it runs, sees
/// every file system of the private world through a layer that takes all changes and
/// vanishes; one on which the kernel stacks no such layer is read-only meanwhile, but
/// for /etc, /var, /usr and /run, which are private already. No packet leaves: there is
/// no route to anywhere, and no name server.
///
/// Programs that the configuration has Postfix run (aliases such as "|PROGRAM", pipe(8)
/// and spawn(8) services) are run as on the host, with the rights they have there.
/// Programs that Postfix only connects to are not started.
///
/// Call with one thread, and without a child that anybody else waits for by SIGCHLD.
std::vector<Finding> rehearse(const RehearsalPlace& place);

} // namespace torva::ctl
