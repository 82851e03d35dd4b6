// What the rehearsal has to know of the configuration, in Postfix's own words, and how
// Postfix is made ready to start on it.
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

/// Asks postconf(1).
///
/// \throws std::runtime_error  its words, when it fails
Configuration readConfiguration(MailLog& log, const std::string& directory,
                                const Deadline& deadline);

/// Has Postfix log to /dev/log where "maillog_file" sends its log to a file: on a copy
/// of the configuration that takes the place of its directory.
///
/// \param scratch  directory for the copy
/// \throws std::runtime_error  the words of cp(1) or postconf(1)
void logToSystem(MailLog& log, const Configuration& configuration, const std::string& scratch,
                 const Deadline& deadline);

/// Gives the outside client a name, and the chroot of Postfix the names and the missing
/// name servers of this world.
///
/// \throws SystemError  "mount" and the path
/// Debian's own preparation of the chroot is run where it is; its failure is no error.
void prepareNames(MailLog& log, const Configuration& configuration,
                  const std::string& clientAddress, const Deadline& deadline);

} // namespace torva::ctl::rehearsal
