#include "ctl/backup/Backups.h"
#include "ctl/backup/Changes.h"
#include "ctl/backup/Lock.h"
#include "ctl/backup/Marker.h"
#include "ctl/backup/Restore.h"
#include "ctl/host/TouchedPaths.h"
#include "ctl/verbs/Activation.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"

#include <optional>

namespace torva::ctl {

namespace {

constexpr int rollbackPatience = 600; ///< in tenths of a second

class Rollback {
public:
    explicit Rollback(Call& call)
        : call_(call), report_(call.report), postfix_(askPostfix()), marker_(readMarker()) {}

    void perform() {
        if (marker_.beforeAnyChange() && call_.request.stamp.empty()) {
            clearMarker(backups_);
            report_.finding({Level::done, "rollback",
                             "the apply that was killed had changed nothing",
                             "torva-postfixctl apply"});
            return;
        }
        const Backup backup = chosenBackup();
        stopAtChanges(backup);
        backUpFirst(backup);
        Activation activation(postfix_, fixedAtStart(postfix_, readMasterCf(postfix_)));
        if (finishesWhatWasKilled()) {
            activation.resumeAfterKill(backup.manifest.running);
        }
        restoreBackup(backup);
        takeUp(activation);
    }

private:
    bool finishesWhatWasKilled() const { return marker_.isSet() && !marker_.beforeAnyChange(); }
    Backup chosenBackup() const;
    std::vector<Change> changesSince(const Backup& applied) const;
    void stopAtChanges(const Backup& backup);
    void backUpFirst(const Backup& backup);
    void restoreBackup(const Backup& backup);
    void takeUp(Activation& activation);

    Call& call_;
    Report& report_;
    Backups backups_;
    Postfix postfix_;
    Marker marker_;
    std::string stamp_;
    std::string made_; ///< the backup of the state before; empty: none
};

Backup Rollback::chosenBackup() const {
    std::string stamp = call_.request.stamp;
    if (stamp.empty() && finishesWhatWasKilled()) {
        stamp = marker_.stamp;
    }
    const std::optional<Backup> backup =
        stamp.empty() ? backups_.beforeNewestRow(postfix_.directory) : backups_.find(stamp);
    if (backup && backup->earlier) {
        throw Failure("rollback",
                      "the backup " + stamp + " was made by an earlier version; nothing was done",
                      std::string("cp -a ") + Backups::path + "/" + stamp + "/tree/. /");
    }
    if (!backup || !backup->whole) {
        throw Failure("rollback",
                      "no backup " + (stamp.empty() ? "of an apply" : stamp) +
                          ", or not what its manifest says; nothing was done",
                      "torva-postfixctl backups");
    }
    if (!backup->ofInstance(postfix_.directory)) {
        throw Failure(otherInstance("rollback", *backup));
    }
    return *backup;
}

std::vector<Change> Rollback::changesSince(const Backup& applied) const {
    try {
        return changesBetween(backups_.leftState(applied.stamp),
                              captureState(postfix_, applied.manifest.paths));
    } catch (const std::exception& error) {
        throw Failure("rollback",
                      std::string("the host cannot be read, to see what has changed since the "
                                  "apply: ") +
                          error.what() + "; nothing was done",
                      "torva-postfixctl rollback --force");
    }
}

/// Stops if edits since the apply would be lost.
void Rollback::stopAtChanges(const Backup& backup) {
    if (finishesWhatWasKilled() || call_.request.force) {
        return;
    }
    const std::vector<Backup> all = backups_.listOf(postfix_.directory);
    if (all.empty() || !all.back().hasLeftState) {
        return; // the last verb was not an apply
    }
    const std::vector<Change> changes = changesSince(all.back());
    if (!changes.empty() && !matchesHost(backup)) {
        printChanges(report_, changes);
        throw Failure("rollback",
                      std::to_string(changes.size()) +
                          " changes since the apply would be lost; nothing was done",
                      "torva-postfixctl rollback --force");
    }
}

void Rollback::backUpFirst(const Backup& backup) {
    if (finishesWhatWasKilled()) {
        return; // the current state is half changed
    }
    try {
        made_ = backups_.take(
            manifestOf(postfix_, "before rollback to " + backup.stamp, backup.manifest.paths));
    } catch (const std::exception& error) {
        throw Failure("rollback",
                      std::string("what there is now cannot be backed up: ") + error.what() +
                          "; nothing was done",
                      std::string("is there room in ") + Backups::path + "?");
    }
}

void Rollback::restoreBackup(const Backup& backup) {
    stamp_ = backup.stamp;
    const std::string verb = finishesWhatWasKilled() ? marker_.verb : "rollback";
    try {
        setMarker(backups_, {verb, backup.stamp});
        const RunLock lock; // a killed run may have left a child at work
        restore(backups_, backup);
        if (verb == "apply") {
            setScratchAside(backups_, backup);
        }
        if (masterProcess(postfix_) == 0) { // a running Postfix needs them
            removeQueueDirectories(backup);
        }
    } catch (const std::exception& error) {
        throw Failure("rollback",
                      "the backup " + backup.stamp +
                          " could not be restored whole: " + error.what(),
                      "make room, then torva-postfixctl rollback");
    }
}

void Rollback::takeUp(Activation& activation) {
    const Postfix now = askPostfix();
    const FixedAtStart fixed = fixedAtStart(now, readMasterCf(now));
    std::string advice = activation.command(fixed);
    std::string failure;
    if (call_.request.reload) {
        failure = activation.activate(fixed);
    } else if (const auto warning = activation.leaveRunning(fixed)) {
        report_.finding(*warning);
    }
    clearMarker(backups_); // not before: if killed until here, Postfix may be stopped
    if (!failure.empty()) {
        throw Failure("reload", "failed: " + failure, advice);
    }
    if (call_.request.reload && activation.wasRunning()) {
        advice.clear();
    }
    report_.finding({Level::done, "rollback",
                     "everything is as it was at " + stamp_ +
                         (made_.empty() ? "" : "; what was there is backup " + made_),
                     advice});
}

} // namespace

int rollback(Call& call) {
    const HostLock lock = lockHost(rollbackPatience);
    holdSignals();
    Rollback(call).perform();
    return 0;
}

} // namespace torva::ctl
