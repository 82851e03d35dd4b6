#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/TouchedPaths.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <iterator>
#include <set>
#include <unistd.h>

namespace torva::ctl {

namespace {

/// A value that may contain tables.
struct Value {
    std::string name; ///< of its parameter
    std::string text;
};

/// Those in main.cf and those of the options in master.cf.
std::vector<Value> valuesWithMaps(const Postfix& postfix, const MasterCfText& masterCf) {
    std::vector<Value> values;
    for (const auto& setting : postfix.settings) {
        values.push_back({setting.first, postfix.value(setting.first)});
    }
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        for (const std::string& option : entry.options()) {
            const std::string::size_type equals = option.find(" = ");
            if (equals != std::string::npos) {
                values.push_back(
                    {option.substr(0, equals), postfix.expanded(option.substr(equals + 3))});
            }
        }
    }
    return values;
}

bool isOneOf(const std::string& type, const std::vector<std::string>& types) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

/// Whether Postfix has the type of a table. Missing Berkeley DB is a finding of its own, see
/// findSupport().
bool hasType(const MapReference& map, const Postfix& postfix,
             const std::vector<std::string>& types) {
    return types.empty() || map.type == "hash" || map.type == "btree" ||
           isOneOf(postfix.readAs(map.type), types);
}

/// The tables in a value. Where nothing but tables can stand, a type that Postfix never had is
/// known for one, too.
std::vector<MapReference> mapsIn(const Value& value, const Postfix& postfix,
                                 const std::vector<std::string>& types) {
    std::vector<MapReference> maps = mapReferences(value.text);
    // What proxymap(8) may read can be any list, such as mynetworks.
    const bool isOfProxy = value.name == "proxy_read_maps" || value.name == "proxy_write_maps";
    if (!isOfProxy && boost::algorithm::ends_with(value.name, "_maps")) {
        for (const MapReference& map : tableElements(value.text)) {
            if (!hasType(map, postfix, types)) {
                maps.push_back(map);
            }
        }
    }
    return maps;
}

/// Tables "TYPE:PATH" of a kind.
using Tables = std::set<std::string>;

/// Those of which postalias(1) builds the index, in place of postmap(1).
Tables tablesOfAliases(const Postfix& postfix) {
    Tables tables;
    for (const char* name : {"alias_maps", "alias_database"}) {
        for (const MapReference& map : mapReferences(postfix.value(name))) {
            tables.insert(map.text());
        }
    }
    return tables;
}

/// The alias databases that the run itself builds.
Tables aliasesOfRun(const Postfix& postfix) {
    Tables tables;
    for (const AliasDatabase& database : aliasDatabases(postfix)) {
        tables.insert(database.type + ":" + database.path);
    }
    return tables;
}

/// Types that Debian has in packages of their own.
const char* const packagedTypes[] = {"cdb",   "ldap", "lmdb",  "mongodb",
                                     "mysql", "pcre", "pgsql", "sqlite"};

const char orTakeItOut[] = ", or take it out of the configuration";

std::string adviceOnType(const MapReference& map, const std::vector<std::string>& types) {
    const std::string lower = boost::algorithm::to_lower_copy(map.type);
    const bool isPackaged = std::find(std::begin(packagedTypes), std::end(packagedTypes), lower) !=
                            std::end(packagedTypes);
    if (lower != map.type && (isPackaged || isOneOf(lower, types))) {
        return "name it " + lower + ":" + map.file + orTakeItOut;
    }
    return isPackaged ? "apt-get install postfix-" + map.type + orTakeItOut
                      : "take it out of the configuration";
}

void findMap(const MapReference& map, const Postfix& postfix, const Tables& aliases,
             Findings& findings) {
    const std::string file = openedFile({postfix.readAs(map.type), map.file});
    if (::access(file.c_str(), F_OK) == 0) {
        return;
    }
    const bool hasSource = exists(map.file);
    const std::string build =
        (aliases.count(map.text()) != 0 ? "postalias " : "postmap ") + map.text();
    const std::string advice = !isIndexed(map.type) ? "write " + map.file
                               : hasSource          ? build
                                                    : "write " + map.file + " and run " + build;
    findings.warning("map", map.text() + ": there is no " + file, advice + orTakeItOut);
}

} // namespace

void findMaps(const Postfix& postfix, const MasterCfText& masterCf,
              const std::vector<std::string>& mapTypes, Findings& findings) {
    const Tables aliases = tablesOfAliases(postfix);
    const Tables builtByRun = aliasesOfRun(postfix);
    Tables seen;
    for (const Value& value : valuesWithMaps(postfix, masterCf)) {
        for (const MapReference& map : mapsIn(value, postfix, mapTypes)) {
            const bool isNew = seen.insert(map.text()).second;
            // The run builds the panel's tables, too.
            if (!isNew || builtByRun.count(map.text()) != 0 ||
                isAtOrBelow(map.file, tablesDirectory)) {
                continue;
            }
            if (!hasType(map, postfix, mapTypes)) {
                findings.warning("map", map.text() + ": Postfix has no type " + map.type,
                                 adviceOnType(map, mapTypes));
            } else if (!isAtOrBelow(map.file, postfix.value("data_directory"))) {
                // Postfix's daemons create those in the data directory.
                findMap(map, postfix, aliases, findings);
            }
        }
    }
    findings.fine("map", "the files of all maps");
}

} // namespace torva::ctl
