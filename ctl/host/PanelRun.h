// What a run of torva-postfix-setup does to a host, as data, for findings about its result,
// and for restoring things after it.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// A service that a run installs.
struct PanelService {
    const char* key;       ///< NAME/TYPE
    const char* isPrivate; ///< "y", "n" or "-"
    const char* command;
    bool replaces;         ///< true: an existing entry is replaced; false: it stays
    const char* arguments; ///< of the command, for one that does not replace
};

const std::vector<PanelService>& panelServices();

/// The service with this key; null when a run does not install it.
const PanelService* panelServiceOf(const std::string& key);

/// The parameters that a run sets.
const std::vector<std::string>& panelParameters();

/// The directory of the panel's tables, and the names of the tables that a run empties.
extern const char* const tablesDirectory;
const std::vector<std::string>& tableNames();

/// "hash:PATH" of a table of the panel.
std::string tableOf(const std::string& name);

} // namespace torva::ctl
