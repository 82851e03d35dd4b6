#include "ctl/backup/Backups.h"
#include "ctl/backup/Marker.h"
#include "ctl/verbs/Verbs.h"

#include <cstdio>
#include <cstring>
#include <set>

namespace torva::ctl {

namespace {

constexpr int listPatience = 600; ///< in tenths of a second

std::string dateOf(std::time_t time) {
    std::tm parts{};
    ::localtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string stateOf(const Backup& backup) {
    return backup.earlier ? "earlier version" : backup.whole ? "whole" : "damaged";
}

std::string lineFor(const Backup& backup) {
    char head[128];
    std::snprintf(head, sizeof(head), "%s  %s  %9llu bytes  ", backup.stamp.c_str(),
                  dateOf(backup.made).c_str(), static_cast<unsigned long long>(backup.bytes));
    const bool fits = std::strlen(head) + backup.manifest.reason.size() <= 80;
    std::string line = head + (fits ? std::string() : "\n    ") + backup.manifest.reason +
                       "\n    " + stateOf(backup);
    if (backup.whole) {
        line += std::string(", ") + backup.manifest.configuration +
                (backup.manifest.configured ? ", configured already" : ", not configured yet");
    }
    return line + "\n";
}

void print(const Backup& backup, Report& report) {
    report.object({{"stamp", backup.stamp},
                   {"date", dateOf(backup.made)},
                   {"bytes", static_cast<long long>(backup.bytes)},
                   {"reason", backup.manifest.reason},
                   {"state", stateOf(backup)},
                   {"configuration", backup.manifest.configuration},
                   {"configured", backup.manifest.configured ? "yes" : "no"}},
                  lineFor(backup));
}

/// The backups that rollback would restore: one of each instance of Postfix.
std::set<std::string> waysBack(const Backups& backups, const std::vector<Backup>& all) {
    std::set<std::string> configurations;
    for (const Backup& backup : all) {
        configurations.insert(backup.manifest.configuration);
    }
    std::set<std::string> stamps;
    for (const std::string& configuration : configurations) {
        if (const auto backup = backups.beforeNewestRow(configuration)) {
            stamps.insert(backup->stamp);
        }
    }
    return stamps;
}

/// Removes all backups but the newest, those that rollback would restore, and the one that
/// is needed to finish a killed verb.
void prune(std::size_t kept, Report& report) {
    const HostLock lock = lockHost(listPatience);
    Backups backups;
    const std::vector<Backup> all = backups.list();
    std::set<std::string> needed = waysBack(backups, all);
    needed.insert(readMarker().stamp);
    const std::size_t surplus = all.size() > kept ? all.size() - kept : 0;
    for (std::size_t index = 0; index < surplus; ++index) {
        const std::string& stamp = all[index].stamp;
        if (needed.count(stamp) == 0) {
            backups.remove(stamp);
            report.finding({Level::done, "backup", "removed " + stamp, ""});
        }
    }
}

} // namespace

int backups(Call& call) {
    if (!Backups::exist()) {
        return 0;
    }
    if (call.request.prune >= 0) {
        prune(static_cast<std::size_t>(call.request.prune), call.report);
        return 0;
    }
    for (const Backup& backup : Backups().list()) {
        print(backup, call.report);
    }
    return 0;
}

} // namespace torva::ctl
