// The programs that the services of master.cf run, and those that are missing. Whether the
// others start is found in the log: ServiceFaults.h.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A service as "postconf -M" prints it: no comments, one line each.
struct ServiceEntry {
    std::string name;    ///< first column, for example "127.0.0.1:10025"
    std::string command; ///< eighth column, for example "spawn"
    std::string program; ///< the program in "argv="; empty: none
    std::string type;    ///< second column, for example "inet"
};

/// Reads the output of "postconf -M". Lines with fewer than eight columns are ignored.
std::vector<ServiceEntry> parseServices(const std::string& text);

/// The names of the services for clients of the network that master(8) does not start.
///
/// \param setting  value of "master_service_disable": services as "NAME/TYPE" or "TYPE", with
///                 "!" for those that are started all the same; the first that fits counts
std::vector<std::string> findDisabled(const std::vector<ServiceEntry>& services,
                                      const std::string& setting);

/// A missing program.
struct MissingProgram {
    std::string path;
    std::vector<std::string> services; ///< names of those that run it
    bool panels;                       ///< whether it belongs to the panel

    /// The path without its directories.
    std::string name() const;
};

/// The programs of Postfix's own services, and of the panel's, that cannot be run. Other
/// pipe(8) and spawn(8) services are ignored: those that Debian lists run programs from
/// packages that hardly any host has.
///
/// \param daemonDirectory  of Postfix
/// \param canRun           whether the program at a path can be run
/// \return in the order of the services
std::vector<MissingProgram>
findMissingPrograms(const std::vector<ServiceEntry>& services, const std::string& daemonDirectory,
                    const std::function<bool(const std::string&)>& canRun);

/// Whether a path is a file that may be executed.
bool isProgram(const std::string& path);

} // namespace torva::ctl::rehearsal
