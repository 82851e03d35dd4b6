// The Postfix of this host: its files and its parameters. postconf reads all of master.cf
// even for parameters of main.cf, which takes long on a host with many services; so it is
// run twice, on a copy of main.cf next to a short master.cf.
#pragma once

#include "ctl/host/MasterCfText.h"

#include <map>
#include <string>

namespace torva::ctl {

using Settings = std::map<std::string, std::string>;

struct Postfix {
    std::string directory; ///< of main.cf and master.cf, see config_directory in postconf(5)
    Settings values;       ///< of all parameters, with references expanded
    Settings settings;     ///< of those set in main.cf, unexpanded (postconf -n), including
                           ///< those for services; none when Postfix does not read it
    Settings redirects;    ///< types of tables that Postfix reads as another type, and that
                           ///< type: see non_bdb_migration_level in postconf(5), 3.11
    std::string failure;   ///< why Postfix does not read main.cf, in its own words: then
                           ///< values are the built-in ones; empty: it does

    /// The value of a parameter, with references expanded; empty: unknown or set to nothing.
    std::string value(const std::string& name) const;

    /// A text with $NAME and ${NAME} replaced by those values.
    std::string expanded(const std::string& text) const;

    /// The type that Postfix reads tables of a type as: itself, unless it is redirected.
    std::string readAs(const std::string& type) const;

    std::string queueDirectory() const { return value("queue_directory"); }
    std::string mainCf() const { return directory + "/main.cf"; }
    std::string masterCf() const { return directory + "/master.cf"; }
};

/// Reads the parameters of this host's Postfix, the one of MAIL_CONFIG if there are several,
/// see postconf(1).
///
/// \throws SystemError  no temporary directory
Postfix askPostfix();

/// The current master.cf; empty when there is none.
MasterCfText readMasterCf(const Postfix& postfix);

/// Process id of the master daemon for this queue; 0: none is running.
int masterProcess(const Postfix& postfix);

} // namespace torva::ctl
