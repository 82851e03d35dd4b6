#include "ctl/backup/Directory.h"
#include "ctl/backup/Marker.h"
#include "ctl/findings/HostFindings.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"

namespace torva::ctl {

int check(Call& call) {
    endAtSignals();
    Host host;
    call.report.findings(checkHost(call.programs, host).all());
    return call.report.stopped() ? 1 : 0;
}

namespace {

/// The holder of the lock; nothing if it cannot be found out, which is reported.
std::string lockHolder(Report& report) {
    try {
        return HostLock::holder();
    } catch (const std::exception& error) {
        report.finding({Level::stop, "lock", error.what(), "see who made it"});
    }
    return std::string();
}

/// The marker; none if it cannot be read, which is reported.
Marker markerIfReadable(Report& report) {
    try {
        return readMarker();
    } catch (const Untrusted& untrusted) {
        report.finding({Level::stop, "backup", untrusted.what(), untrusted.advice()});
    }
    return Marker();
}

} // namespace

void noteUnfinished(Report& report) {
    const std::string holder = lockHolder(report);
    const Marker marker = markerIfReadable(report);
    if (!holder.empty()) {
        report.finding({Level::warning, "lock", holder + " is at work", "wait for its end"});
    } else if (marker.isSet() && marker.beforeAnyChange()) {
        report.finding({Level::warning, "unfinished", "apply was killed before it changed anything",
                        "torva-postfixctl rollback, or apply"});
    } else if (marker.isSet()) {
        report.finding(
            {Level::stop, "unfinished",
             marker.verb + " was killed half-way, or failed; its backup is " + marker.stamp,
             "torva-postfixctl rollback"});
    }
}

HostLock lockHost(int patience) {
    try {
        return HostLock(patience);
    } catch (const Locked& locked) {
        throw Failure("lock", locked.what(), "wait for its end");
    }
}

void awaitEarlierRun() {
    try {
        const RunLock lock;
    } catch (const Locked& locked) {
        throw Failure("lock", locked.what(), "wait for its end, or end it");
    }
}

} // namespace torva::ctl
