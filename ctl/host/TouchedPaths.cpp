#include "ctl/host/TouchedPaths.h"

#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <sys/stat.h>

namespace torva::ctl {

namespace {

const char* const indexedTypes[] = {"hash", "btree", "dbm", "sdbm", "cdb"};
const char* const indexSuffixes[] = {"", ".db", ".dir", ".pag", ".cdb", ".cdb.tmp", ".lmdb"};

AliasDatabase parsedDatabase(const std::string& element, const std::string& defaultType) {
    const std::string::size_type colon = element.find(':');
    AliasDatabase database;
    database.text = element;
    database.type = colon == std::string::npos ? defaultType : element.substr(0, colon);
    database.path = colon == std::string::npos ? element : element.substr(colon + 1);
    if (database.path.empty() || database.path[0] != '/') {
        database.path.insert(0, "/"); // the working directory of the run
    }
    return database;
}

void addResolved(std::set<std::string>& paths, const std::string& path) {
    const std::string parent = resolved(directoryOf(path));
    paths.insert((parent == "/" ? "" : parent) + "/" + nameOf(path));
    paths.insert(resolved(path));
}

} // namespace

bool isRebuilt(const std::string& type) {
    return std::find(std::begin(indexedTypes), std::end(indexedTypes), type) !=
           std::end(indexedTypes);
}

std::vector<AliasDatabase> aliasDatabases(const Postfix& postfix) {
    std::vector<AliasDatabase> databases;
    std::set<std::string> seen{tableOf("aliases")}; // which the run leaves alone
    for (const char* name : {"alias_maps", "alias_database"}) {
        for (const std::string& element : listElements(postfix.value(name))) {
            const AliasDatabase database =
                parsedDatabase(element, postfix.value("default_database_type"));
            if (isRebuilt(database.type) && seen.insert(element).second) {
                databases.push_back(database);
            }
        }
    }
    return databases;
}

bool isNoFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

std::vector<std::string> touchedPaths(const Postfix& postfix) {
    std::set<std::string> paths;
    addResolved(paths, tablesDirectory);
    for (const std::string& file : {postfix.mainCf(), postfix.masterCf()}) {
        for (const char* suffix : {"", ".tmp", ".torva-new"}) {
            addResolved(paths, file + suffix);
        }
    }
    for (const AliasDatabase& database : aliasDatabases(postfix)) {
        for (const char* suffix : indexSuffixes) {
            addResolved(paths, database.path + suffix);
        }
        // The file in which Berkeley DB creates an index.
        const std::string directory = directoryOf(database.path);
        addResolved(paths,
                    (directory == "/" ? "" : directory) + "/__db." + nameOf(database.path) + ".db");
    }
    return withoutNested({paths.begin(), paths.end()});
}

std::vector<std::string> withoutNested(std::vector<std::string> paths) {
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> kept;
    for (const std::string& path : paths) {
        const bool nested = std::any_of(kept.begin(), kept.end(), [&](const std::string& outer) {
            return path == outer || path.compare(0, outer.size() + 1, outer + "/") == 0;
        });
        if (!nested) {
            kept.push_back(path);
        }
    }
    return kept;
}

} // namespace torva::ctl
