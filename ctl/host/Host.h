// The facts about this host that findings need and that other programs must be run for;
// each is run once.
#pragma once

#include "ctl/host/Postfix.h"
#include "ctl/host/RunSupport.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// The paths of the companion's own programs.
struct OwnPrograms {
    std::string self;    ///< this program
    std::string tool;    ///< torva-postfix-setup, in the same directory
    std::string sandbox; ///< the script that creates private worlds
};

/// Finds them by the path of this program: in an installation below lib/torva-postfix,
/// in a checkout above the build folder.
///
/// \param called  argv[0] of this program, its path if /proc is not available
OwnPrograms ownPrograms(const std::string& called);

struct Host {
    OwnPrograms programs;
    Postfix postfix;
    MasterCfText masterCf{std::string()};
    std::string masterFailure;         ///< why Postfix does not read master.cf; empty: it does
    std::vector<std::string> mapTypes; ///< see postconf -m
    std::string mapTypesFailure;       ///< why they are not known; empty: they are
    RunSupport support;                ///< asked when all of the above is known
};

/// Collects the facts. If Postfix does not read main.cf, the others are left out.
Host askHost(const OwnPrograms& programs);

/// Whether a run has already configured this host.
bool isConfigured(const Postfix& postfix, const MasterCfText& masterCf);

} // namespace torva::ctl
