#include "ctl/backup/Changes.h"

#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"

#include <algorithm>
#include <cstdio>

namespace torva::ctl {

namespace {

using Texts = std::map<std::string, std::string>;

void compareTexts(const std::string& kind, const std::string& prefix, const Texts& left,
                  const Texts& now, std::vector<Change>& changes) {
    const auto valueIn = [](const Texts& texts, const std::string& name) {
        const auto found = texts.find(name);
        return found == texts.end() ? std::string() : found->second;
    };
    Texts all = left;
    all.insert(now.begin(), now.end());
    for (const auto& one : all) {
        const std::string& name = one.first;
        const std::string before = valueIn(left, name);
        const std::string after = valueIn(now, name);
        if (before != after || left.count(name) != now.count(name)) {
            changes.push_back({kind, prefix + name, before, after});
        }
    }
}

std::string octalMode(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%04o", mode & 07777);
    return text;
}

/// A file, in words.
std::string described(const Entry& entry) {
    if (!entry.isThere()) {
        return std::string();
    }
    if (entry.isLink()) {
        return "link to " + entry.target;
    }
    const std::string access = octalMode(entry.mode) + " " + std::to_string(entry.owner) + ":" +
                               std::to_string(entry.group);
    return entry.isFile() ? access + ", " + std::to_string(entry.size) + " bytes"
                          : access + (entry.isDirectory() ? ", directory" : ", no file");
}

/// Whether the contents of a file need no comparison, because its source is compared, or its
/// records are. An index is another file after each newaliases(1), whatever has changed.
bool isIndexOf(const Snapshot& files, const std::string& path) {
    if (!isIndexName(path)) {
        return false;
    }
    const std::string source = path.substr(0, path.rfind('.'));
    const auto& names = tableNames();
    return files.count(source) != 0 ||
           std::any_of(names.begin(), names.end(), [&](const std::string& name) {
               return source == resolved(tablesDirectory) + "/" + name;
           });
}

/// Without the modification time, since a change of that alone is not an edit.
bool isSameFile(Entry left, const Entry& right, bool isIndex) {
    left.seconds = right.seconds;
    left.nanoseconds = right.nanoseconds;
    if (isIndex) {
        left.size = right.size;
        left.checksum = right.checksum;
    }
    return sameEntry(left, right);
}

/// What the descriptions of two files do not show.
std::string hiddenDifference(const Entry& left, const Entry& right) {
    if (described(left) != described(right)) {
        return std::string();
    }
    return sameContents(left, right) ? ", other attributes" : ", other contents";
}

void compareFiles(const Snapshot& left, const Snapshot& now, std::vector<Change>& changes) {
    Snapshot all = left;
    all.insert(now.begin(), now.end());
    const auto entryIn = [](const Snapshot& snapshot, const std::string& path) {
        const auto found = snapshot.find(path);
        return found == snapshot.end() ? Entry() : found->second;
    };
    for (const auto& one : all) {
        const std::string& path = one.first;
        const Entry before = entryIn(left, path);
        const Entry after = entryIn(now, path);
        if (!isSameFile(before, after, isIndexOf(all, path))) {
            changes.push_back({"file", path, described(before),
                               described(after) + hiddenDifference(before, after)});
        }
    }
}

Settings servicesOf(const Postfix& postfix) {
    const MasterCfText masterCf = readMasterCf(postfix);
    Settings services;
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        std::string text = masterCf.textOf(entry);
        text.erase(text.find_last_not_of("\r\n") + 1);
        services[entry.key()] = text;
    }
    return services;
}

} // namespace

LeftState captureState(const Postfix& postfix, const std::vector<std::string>& paths) {
    LeftState state;
    state.settings = postfix.settings;
    state.services = servicesOf(postfix);
    state.records = readRecords(postfix);
    state.entries = describe(paths);
    state.mainCf = readFile(postfix.mainCf()).value_or("");
    state.masterCf = readFile(postfix.masterCf()).value_or("");
    return state;
}

std::vector<Change> changesBetween(const LeftState& left, const LeftState& now) {
    std::vector<Change> changes;
    if (!now.settings.empty()) {
        compareTexts("setting", "", left.settings, now.settings, changes);
    }
    compareTexts("service", "", left.services, now.services, changes);
    for (const std::string& table : tableNames()) {
        const auto before = left.records.find(table);
        const auto after = now.records.find(table);
        compareTexts("record", table + ": ",
                     before == left.records.end() ? Records() : before->second,
                     after == now.records.end() ? Records() : after->second, changes);
    }
    compareFiles(left.entries, now.entries, changes);
    return changes;
}

} // namespace torva::ctl
