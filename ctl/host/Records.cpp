#include "ctl/host/Records.h"

#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/OpenIndex.h"
#include "ctl/host/Program.h"
#include "torva/postfix/tables/Postmap.h"

#include <sstream>
#include <stdexcept>

namespace torva::ctl {

namespace {

Records recordsIn(const std::string& listing) {
    Records records;
    std::istringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string::size_type tab = line.find('\t');
        if (tab != std::string::npos) {
            records[line.substr(0, tab)] = line.substr(tab + 1);
        }
    }
    return records;
}

} // namespace

RecordsByTable readRecords(const Postfix& postfix) {
    if (!postfix.failure.empty()) {
        throw std::runtime_error(postfix.failure); // postmap would fail, or wait for a FIFO
    }
    RecordsByTable records;
    for (const std::string& name : tableNames()) {
        const std::string source = std::string(tablesDirectory) + "/" + name;
        const std::string index = openedFile({postfix.readAs("hash"), source});
        const std::string former = openedFile({"hash", source});
        if (!exists(index) && exists(former)) {
            throw std::runtime_error(former + " is there, but Postfix reads " + index);
        }
        if (!exists(index)) {
            continue; // postmap sleeps before it fails
        }
        records[name] = recordsIn(OpenIndex(index).listing());
    }
    return records;
}

RecordsByTable missingRecords(const RecordsByTable& before, const RecordsByTable& now) {
    RecordsByTable missing;
    for (const auto& [table, records] : before) {
        const auto there = now.find(table);
        for (const auto& [key, value] : records) {
            if (there == now.end() || there->second.count(key) == 0) {
                missing[table][key] = value;
            }
        }
    }
    return missing;
}

std::vector<std::string> putBack(const RecordsByTable& records) {
    std::vector<std::string> refused;
    for (const auto& [table, all] : records) {
        Records taken;
        for (const auto& [key, value] : all) {
            if (key.find_first_of(" \t\r\n") == std::string::npos) {
                taken[key] = value;
            } else {
                refused.push_back(key);
            }
        }
        mail::postfix::putRecords(tableOf(table), taken);
    }
    return refused;
}

std::string countedRecords(const RecordsByTable& records) {
    std::string text;
    for (const auto& [table, all] : records) {
        if (!all.empty()) {
            text += (text.empty() ? "" : ", ") + std::to_string(all.size()) + " in " + table;
        }
    }
    return text;
}

} // namespace torva::ctl
