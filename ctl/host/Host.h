// Everything about this host that findings are made of and that takes a program to find
// out, asked once.
#pragma once

#include "ctl/host/Postfix.h"
#include "ctl/host/RunSupport.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Where the companion's own programs are.
struct OwnPrograms {
    std::string self;    ///< this program
    std::string tool;    ///< torva-postfix-setup, beside it
    std::string sandbox; ///< the script that makes private worlds
};

/// Finds them from the place of this program: in an installation below lib/torva-postfix,
/// in a checkout above the build folder.
///
/// \param called  what this program was called as; its path where there is no /proc to ask
OwnPrograms ownPrograms(const std::string& called);

struct Host {
    OwnPrograms programs;
    Postfix postfix;
    MasterCfText masterCf{std::string()};
    std::string masterFailure;         ///< why Postfix does not read master.cf; empty: it does
    std::vector<std::string> mapTypes; ///< see postconf -m
    std::string mapTypesFailure;       ///< why that is not known; empty: it is
    RunSupport support;                ///< asked when all of the above is known
};

/// Asks Postfix. Where main.cf is not read, nothing else is asked.
Host askHost(const OwnPrograms& programs);

/// Whether a run has configured this host already.
bool isConfigured(const Postfix& postfix, const MasterCfText& masterCf);

} // namespace torva::ctl
