#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/TouchedPaths.h"

#include <algorithm>
#include <set>
#include <unistd.h>

namespace torva::ctl {

namespace {

/// The values that may contain tables: those in main.cf and those of the options in master.cf.
std::vector<std::string> valuesWithMaps(const Postfix& postfix, const MasterCfText& masterCf) {
    std::vector<std::string> values;
    for (const auto& setting : postfix.settings) {
        values.push_back(postfix.value(setting.first));
    }
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        for (const std::string& option : entry.options()) {
            values.push_back(postfix.expanded(option));
        }
    }
    return values;
}

/// Whether postalias(1) builds its index, in place of postmap(1).
bool isOfAliases(const MapReference& map, const Postfix& postfix) {
    for (const char* name : {"alias_maps", "alias_database"}) {
        for (const MapReference& one : mapReferences(postfix.value(name))) {
            if (one.text() == map.text()) {
                return true;
            }
        }
    }
    return false;
}

/// The tables that the run itself builds: the panel's and alias databases.
bool isBuiltByRun(const MapReference& map, const Postfix& postfix) {
    const std::vector<AliasDatabase> databases = aliasDatabases(postfix);
    return isAtOrBelow(map.file, tablesDirectory) ||
           std::any_of(databases.begin(), databases.end(), [&](const AliasDatabase& database) {
               return database.type == map.type && database.path == map.file;
           });
}

void findMap(const MapReference& map, const Postfix& postfix, Findings& findings) {
    const std::string file = openedFile({postfix.readAs(map.type), map.file});
    if (::access(file.c_str(), F_OK) == 0) {
        return;
    }
    const std::string elseAdvice = ", or take it out of the configuration";
    const bool hasSource = exists(map.file);
    const std::string build = (isOfAliases(map, postfix) ? "postalias " : "postmap ") + map.text();
    const std::string advice = !isIndexed(map.type) ? "write " + map.file
                               : hasSource          ? build
                                                    : "write " + map.file + " and run " + build;
    findings.warning("map", map.text() + ": there is no " + file, advice + elseAdvice);
}

} // namespace

void findMaps(const Postfix& postfix, const MasterCfText& masterCf, Findings& findings) {
    std::set<std::string> seen;
    for (const std::string& value : valuesWithMaps(postfix, masterCf)) {
        for (const MapReference& map : mapReferences(value)) {
            // Postfix's daemons create those in the data directory.
            if (!isBuiltByRun(map, postfix) &&
                !isAtOrBelow(map.file, postfix.value("data_directory")) &&
                seen.insert(map.text()).second) {
                findMap(map, postfix, findings);
            }
        }
    }
    findings.fine("map", "the files of all maps");
}

} // namespace torva::ctl
