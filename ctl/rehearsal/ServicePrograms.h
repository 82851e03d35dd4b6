// The programs that the services of master.cf run, and which of them are not there.
// Whether one that is there starts shows in the log: ServiceFaults.h.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A service as "postconf -M" prints it: no comments, one line each.
struct ServiceEntry {
    std::string name;    ///< first column, for example "127.0.0.1:10025"
    std::string command; ///< eighth column, for example "spawn"
    std::string program; ///< what "argv=" names; empty: nothing
};

/// Reads what "postconf -M" prints. Lines with fewer than eight columns are left out.
std::vector<ServiceEntry> parseServices(const std::string& text);

/// A program that is not there.
struct MissingProgram {
    std::string path;
    std::vector<std::string> services; ///< names of those that run it
    bool panels;                       ///< whether it comes with the panel

    /// The path without its directories.
    std::string name() const;
};

/// The programs of Postfix's own services, and of the panel's, that cannot be run. A
/// pipe(8) or spawn(8) service of somebody else is not looked at: the ones that Debian
/// lists run programs of packages that hardly any host has.
///
/// \param daemonDirectory  of Postfix
/// \param canRun           whether there is such a program, given its path
/// \return in the order of the services
std::vector<MissingProgram>
findMissingPrograms(const std::vector<ServiceEntry>& services, const std::string& daemonDirectory,
                    const std::function<bool(const std::string&)>& canRun);

/// Whether a path is a file that may be executed.
bool isProgram(const std::string& path);

} // namespace torva::ctl::rehearsal
