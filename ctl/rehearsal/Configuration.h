// The part of the configuration that the rehearsal needs, as Postfix prints it, and the
// preparation for starting Postfix with it.
#pragma once

#include "ctl/rehearsal/MailLog.h"
#include "ctl/rehearsal/ServicePrograms.h"

#include <map>
#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// Settings, and services.
struct Configuration {
    std::string directory;                       ///< of main.cf
    std::map<std::string, std::string> expanded; ///< of the settings that are needed here
    std::string myDestination;                   ///< as main.cf has it
    std::vector<ServiceEntry> services;

    /// A setting; empty when it is not among those that are needed.
    std::string get(const std::string& name) const;
};

/// Runs postconf(1).
///
/// \throws std::runtime_error  its message, when it fails
Configuration readConfiguration(MailLog& log, const std::string& directory,
                                const Deadline& deadline);

/// Makes Postfix log to /dev/log if "maillog_file" sends its log to a file, by mounting a
/// changed copy of the configuration over its directory.
///
/// \param scratch  directory for the copy
/// \throws std::runtime_error  the message of cp(1) or postconf(1)
void logToSystem(MailLog& log, const Configuration& configuration, const std::string& scratch,
                 const Deadline& deadline);

/// Gives the outside client a name, and updates Postfix's chroot with the names of this
/// world, which has no name servers.
///
/// \throws SystemError  "mount" and the path
/// Debian's script for the chroot is run if it exists; its failure is not an error.
void prepareNames(MailLog& log, const Configuration& configuration,
                  const std::string& clientAddress, const Deadline& deadline);

} // namespace torva::ctl::rehearsal
