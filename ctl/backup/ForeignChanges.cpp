#include "ctl/backup/ForeignChanges.h"

#include "ctl/backup/Restore.h"
#include "ctl/host/Files.h"
#include "ctl/host/PanelRun.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

namespace torva::ctl {

namespace {

const char* const suffixesOfIndexes[] = {".db", ".dir", ".pag", ".cdb", ".cdb.tmp", ".lmdb"};
const char onlyOfAliases[] = ".cdb.tmp"; ///< among the paths, for each source of aliases
const char hostTable[] = "virtual";      ///< the only one into which a run puts records
const char hostMailDomain[] = "@localhost.localdomain"; ///< in the values of those

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// Whether a line of main.cf or master.cf has no text: it is a comment, or blank.
bool hasNoText(const std::string& line) {
    const std::string::size_type first = line.find_first_not_of(" \t\r\v\f");
    return first == std::string::npos || line[first] == '#';
}

bool isComment(const std::string& line) {
    return hasNoText(line) && line.find('#') != std::string::npos;
}

bool isContinued(const std::string& line) {
    return line.find_first_not_of(" \t\r\v\f") > 0;
}

Entry entryIn(const Snapshot& snapshot, const std::string& path) {
    const auto found = snapshot.find(path);
    return found == snapshot.end() ? Entry() : found->second;
}

bool isEmptyFile(const Entry& entry) {
    return entry.isFile() && entry.size == 0;
}

std::string domainOf(const std::string& address) {
    const std::string::size_type at = address.rfind('@');
    return at == std::string::npos ? std::string() : address.substr(at + 1);
}

/// The files that a run writes, by their exact paths.
class FilesOfRun {
public:
    FilesOfRun(const Manifest& backup, const Snapshot& before, const Snapshot& now);

    /// Whether the run can have changed a file to what it is now.
    bool hold(const std::string& path) const;

private:
    void addTables();
    void addConfiguration(const std::string& configuration);
    void addAliases(const std::vector<std::string>& paths);
    void addIndexes(const std::string& source);
    void add(const std::string& path);
    bool isScratch(const std::string& path) const;
    bool isIndexOfUnchanged(const std::string& path) const;

    const Snapshot& before_;
    const Snapshot& now_;
    std::set<std::string> written_; ///< whatever they are now
    std::set<std::string> emptied_; ///< if they are empty now
    std::set<std::string> created_; ///< if they are new
};

FilesOfRun::FilesOfRun(const Manifest& backup, const Snapshot& before, const Snapshot& now)
    : before_(before), now_(now) {
    addTables();
    addConfiguration(backup.configuration);
    addAliases(backup.paths);
}

void FilesOfRun::add(const std::string& path) {
    written_.insert(path);
    written_.insert(resolved(path)); // a link may lead to a file with any name
}

void FilesOfRun::addIndexes(const std::string& source) {
    for (const char* suffix : suffixesOfIndexes) {
        add(source + suffix);
    }
    // The file in which Berkeley DB creates an index.
    add(directoryOf(source) + "/__db." + nameOf(source) + ".db");
}

void FilesOfRun::addTables() {
    const std::string directory = resolved(tablesDirectory);
    created_.insert(directory);
    for (const std::string& name : tableNames()) {
        emptied_.insert(directory + "/" + name);
        addIndexes(directory + "/" + name);
    }
    add(directory + "/master.cf.disabled");
}

void FilesOfRun::addConfiguration(const std::string& configuration) {
    for (const char* name : {"/main.cf", "/master.cf"}) {
        for (const char* suffix : {"", ".tmp", ".torva-new"}) {
            add(configuration + name + suffix);
            add(resolved(configuration) + name + suffix);
            written_.insert(resolved(configuration + name) + suffix);
        }
    }
}

void FilesOfRun::addAliases(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        if (endsWith(path, onlyOfAliases)) {
            addIndexes(path.substr(0, path.size() - std::string(onlyOfAliases).size()));
        }
    }
    for (const std::string& path : paths) {
        const bool isNew = !entryIn(before_, path).isThere();
        if (isNew && written_.count(path) == 0) {
            emptied_.insert(path); // a source that is missing is created
        }
    }
}

/// Whether this is a new file with a name of mkstemp(3) beside one that the run writes.
bool FilesOfRun::isScratch(const std::string& path) const {
    const std::string other = path.substr(0, path.rfind('.'));
    return !entryIn(before_, path).isThere() &&
           (written_.count(other) != 0 || emptied_.count(other) != 0) &&
           judgeScratchName(nameOf(path), nameOf(other)) == ScratchName::likely;
}

/// Whether nothing is lost with this index, because what it was made from is as before: the
/// aliases of somebody else in the directory of the tables, for example.
bool FilesOfRun::isIndexOfUnchanged(const std::string& path) const {
    return std::any_of(
        std::begin(suffixesOfIndexes), std::end(suffixesOfIndexes), [&](const char* suffix) {
            if (!endsWith(path, suffix)) {
                return false;
            }
            const std::string source = path.substr(0, path.size() - std::string(suffix).size());
            const Entry before = entryIn(before_, source);
            return before.isFile() && sameContents(before, entryIn(now_, source));
        });
}

bool FilesOfRun::hold(const std::string& path) const {
    const Entry before = entryIn(before_, path);
    const Entry now = entryIn(now_, path);
    if (written_.count(path) != 0 || isScratch(path) || isIndexOfUnchanged(path)) {
        return true;
    }
    if (created_.count(path) != 0) {
        return !before.isThere();
    }
    return emptied_.count(path) != 0 &&
           (isEmptyFile(now) || (now.isThere() && sameContents(before, now)));
}

/// The domains for which the run has put records into its table: the name of the host.
std::set<std::string> domainsOfHost(const RecordsByTable& records) {
    std::set<std::string> domains;
    const auto table = records.find(hostTable);
    if (table != records.end()) {
        for (const auto& [key, value] : table->second) {
            if (endsWith(value, hostMailDomain)) {
                domains.insert(domainOf(key));
            }
        }
    }
    return domains;
}

/// Whether the run can have changed a record: it drops them, and puts in those of the host.
bool isRecordOfRun(const Change& change, const std::set<std::string>& hostDomains) {
    const std::string table = std::string(hostTable) + ": ";
    return change.after.empty() || (change.name.compare(0, table.size(), table) == 0 &&
                                    hostDomains.count(domainOf(change.name)) != 0);
}

bool isServiceOfRun(const std::string& key) {
    return panelServiceOf(key) != nullptr || key == "pickup/unix";
}

bool isSettingOfRun(const std::string& name) {
    const auto& names = panelParameters();
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

std::vector<std::string> linesOfOthers(const std::string& mainCf) {
    std::vector<std::string> others;
    bool isOfPanel = false;
    for (const std::string& line : splitLines(mainCf)) {
        if (!hasNoText(line) && !isContinued(line)) {
            isOfPanel = isSettingOfRun(line.substr(0, line.find_first_of(" \t\r\v\f=")));
        }
        if (hasNoText(line) || !isOfPanel) {
            others.push_back(line);
        }
    }
    return others;
}

std::vector<std::string> newComments(const std::string& before, const std::string& now) {
    const std::vector<std::string> lines = splitLines(before);
    const std::set<std::string> known(lines.begin(), lines.end());
    std::vector<std::string> found;
    for (const std::string& line : splitLines(now)) {
        if (!isComment(line) || known.count(line) != 0) {
            continue;
        }
        // A service that became a comment has a mark before it.
        const bool wasService =
            std::any_of(lines.begin(), lines.end(), [&](const std::string& one) {
                return !hasNoText(one) && endsWith(line, one);
            });
        if (!wasService) {
            found.push_back(line);
        }
    }
    return found;
}

std::vector<Change> foreignChanges(const Manifest& backup, const LeftState& before,
                                   const LeftState& now) {
    const FilesOfRun files(backup, before.entries, now.entries);
    const std::set<std::string> hostDomains = domainsOfHost(now.records);
    std::vector<Change> foreign;
    for (Change& change : changesBetween(before, now)) {
        const bool byRun = (change.kind == "setting" && isSettingOfRun(change.name)) ||
                           (change.kind == "service" && isServiceOfRun(change.name)) ||
                           (change.kind == "record" && isRecordOfRun(change, hostDomains)) ||
                           (change.kind == "file" && files.hold(change.name));
        if (!byRun) {
            foreign.push_back(std::move(change));
        }
    }
    if (linesOfOthers(before.mainCf) != linesOfOthers(now.mainCf)) {
        foreign.push_back({"file", backup.configuration + "/main.cf", "", "other lines"});
    }
    if (!newComments(before.masterCf, now.masterCf).empty()) {
        foreign.push_back({"file", backup.configuration + "/master.cf", "", "other comments"});
    }
    return foreign;
}

} // namespace torva::ctl
