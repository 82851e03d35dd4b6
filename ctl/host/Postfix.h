// The Postfix of this host: where its files are, and what its parameters are. postconf
// reads all of master.cf for every question about main.cf, which takes long on a host of
// many services; so it is asked twice, about a copy of main.cf beside a short master.cf.
#pragma once

#include "ctl/host/MasterCfText.h"

#include <map>
#include <string>

namespace torva::ctl {

using Settings = std::map<std::string, std::string>;

struct Postfix {
    std::string directory; ///< of main.cf and master.cf, see config_directory in postconf(5)
    Settings values;       ///< of all parameters, references expanded
    Settings settings;     ///< of those that main.cf sets, as it has them (postconf -n), with
                           ///< those that belong to services; none when it is not read
    std::string failure;   ///< why Postfix does not read main.cf, in its own words; empty:
                           ///< it does. Values are then the built-in ones.

    /// The value of a parameter, references expanded; empty: unknown, or set to nothing.
    std::string value(const std::string& name) const;

    std::string queueDirectory() const { return value("queue_directory"); }
    std::string mainCf() const { return directory + "/main.cf"; }
    std::string masterCf() const { return directory + "/master.cf"; }
};

/// Asks Postfix about this host, see MAIL_CONFIG in postconf(1) for which of several.
///
/// \throws SystemError  no scratch directory
Postfix askPostfix();

/// master.cf as it stands; empty when there is none.
MasterCfText readMasterCf(const Postfix& postfix);

/// Process id of the master daemon that works on this queue; 0: none does.
int masterProcess(const Postfix& postfix);

} // namespace torva::ctl
