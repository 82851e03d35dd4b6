#include "ctl/backup/Backups.h"
#include "ctl/backup/Changes.h"
#include "ctl/backup/Lock.h"
#include "ctl/backup/Marker.h"
#include "ctl/backup/Restore.h"
#include "ctl/host/Files.h"
#include "ctl/host/Lists.h"
#include "ctl/host/PanelRun.h"
#include "ctl/host/TouchedPaths.h"
#include "ctl/verbs/Activation.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

namespace torva::ctl {

namespace {

constexpr int rollbackPatience = 600; ///< in tenths of a second

/// Whether the settings of another instance of Postfix name the panel's tables.
bool usesPanelTables(const std::string& configuration) {
    std::istringstream lines(readFile(configuration + "/main.cf").value_or(""));
    std::string line;
    while (std::getline(lines, line)) {
        if (line[0] != '#' && line.find(tablesDirectory) != std::string::npos) {
            return true;
        }
    }
    return false;
}

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
        stopAtOtherInstance(backup);
        stopAtChanges(backup);
        backUpFirst(backup);
        Activation activation(postfix_, fixedAtStart(postfix_, readMasterCf(postfix_)));
        if (finishesWhatWasKilled()) {
            activation.resumeAfterKill(marker_.running);
        }
        restoreBackup(backup, activation.wasRunning());
        takeUp(activation);
    }

private:
    bool finishesWhatWasKilled() const { return marker_.isSet() && !marker_.beforeAnyChange(); }
    Backup chosenBackup() const;
    std::vector<Change> changesSince(const Backup& applied) const;
    std::set<std::string> otherInstances() const;
    void stopAtOtherInstance(const Backup& backup) const;
    void stopAtChanges(const Backup& backup);
    void backUpFirst(const Backup& backup);
    void restoreBackup(const Backup& backup, bool running);
    void takeUp(Activation& activation);
    void keepLeftState();

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
                      finishesWhatWasKilled()
                          ? std::string("torva-postfixctl rollback STAMP, with one that "
                                        "torva-postfixctl backups calls whole; if there is none, "
                                        "correct the files, then rm ") +
                                Backups::path + "/unfinished"
                          : "torva-postfixctl backups");
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

/// The configuration directories of all instances but this one, as far as they are known.
std::set<std::string> Rollback::otherInstances() const {
    std::set<std::string> directories{"/etc/postfix"};
    for (const char* name : {"multi_instance_directories", "alternate_config_directories"}) {
        for (const std::string& directory : listElements(postfix_.value(name))) {
            directories.insert(directory);
        }
    }
    for (const Backup& backup : backups_.list()) {
        directories.insert(backup.manifest.configuration);
    }
    const std::string own = resolved(postfix_.directory);
    for (auto one = directories.begin(); one != directories.end();) {
        one = resolved(*one) == own ? directories.erase(one) : std::next(one);
    }
    return directories;
}

/// Stops if another instance of Postfix would lose the panel's tables, which are in one place
/// for all.
void Rollback::stopAtOtherInstance(const Backup& backup) const {
    if (call_.request.force || partOf(backup.manifest.entries, tablesDirectory).size() > 1) {
        return;
    }
    for (const std::string& configuration : otherInstances()) {
        if (usesPanelTables(configuration)) {
            throw Failure("rollback",
                          "the tables of the panel would be removed, which " + configuration +
                              " uses; nothing was done",
                          "MAIL_CONFIG=" + configuration +
                              " torva-postfixctl rollback, then this again; or "
                              "torva-postfixctl rollback --force");
        }
    }
}

/// Stops if edits since the apply would be lost.
void Rollback::stopAtChanges(const Backup& backup) {
    if (finishesWhatWasKilled() || call_.request.force) {
        return;
    }
    const std::vector<Backup> all = backups_.listOf(postfix_.directory);
    // Later ones are of verbs that have changed nothing in the end.
    const auto last =
        std::find_if(all.rbegin(), all.rend(), [](const Backup& one) { return one.hasLeftState; });
    if (last == all.rend()) {
        return; // all are of an earlier version
    }
    const std::vector<Change> changes = changesSince(*last);
    if (!changes.empty() && !matchesHost(backup)) {
        printChanges(report_, changes);
        throw Failure("rollback",
                      std::to_string(changes.size()) + " changes since the " +
                          (last->ofApply() ? "apply" : "last rollback") +
                          " would be lost; nothing was done",
                      "torva-postfixctl rollback --force");
    }
}

void Rollback::backUpFirst(const Backup& backup) {
    if (finishesWhatWasKilled() && call_.request.force) {
        return;
    }
    if (finishesWhatWasKilled()) {
        awaitEarlierRun(); // what it is still changing cannot be kept
    }
    try {
        if (finishesWhatWasKilled() && matchesHost(backup)) {
            return; // it had changed nothing
        }
        // What is half changed, too: somebody may have gone on working since the kill.
        made_ = backups_.take(
            manifestOf(postfix_, "before rollback to " + backup.stamp, backup.manifest.paths));
    } catch (const std::exception& error) {
        throw Failure("rollback",
                      std::string("what there is now cannot be backed up: ") + error.what() +
                          "; nothing was done",
                      finishesWhatWasKilled()
                          ? cureOf(error) +
                                ", or torva-postfixctl rollback --force, which keeps no copy"
                          : cureOfBackup(error));
    }
}

void Rollback::restoreBackup(const Backup& backup, bool running) {
    stamp_ = backup.stamp;
    const std::string verb = finishesWhatWasKilled() ? marker_.verb : "rollback";
    try {
        setMarker(backups_, {verb, backup.stamp, running});
        const RunLock lock; // a killed run may have left a child at work
        restore(backups_, backup);
        if (verb == "apply") {
            printSetAside(report_, setScratchAside(backups_, backup), backup.stamp);
        }
        if (masterProcess(postfix_) == 0) { // a running Postfix needs them
            removeQueueDirectories(backup);
        }
    } catch (const Locked& locked) { // before the first change
        if (!finishesWhatWasKilled()) {
            clearMarker(backups_);
            backups_.remove(made_);
        }
        throw Failure("lock", locked.what(), "wait for its end, or end it");
    } catch (const std::exception& error) {
        throw Failure("rollback",
                      "the backup " + backup.stamp +
                          " could not be restored whole: " + error.what(),
                      cureOf(error) + ", then torva-postfixctl rollback");
    }
}

void Rollback::takeUp(Activation& activation) {
    const Postfix now = askPostfix();
    const FixedAtStart fixed = fixedAtStart(now, readMasterCf(now));
    std::string failure;
    if (call_.request.reload) {
        failure = activation.activate(fixed);
    } else if (const auto warning = activation.leaveRunning(fixed)) {
        report_.finding(*warning);
    }
    keepLeftState();
    clearMarker(backups_); // not before: if killed until here, Postfix may be stopped
    if (!failure.empty()) {
        const std::string state = masterProcess(now) == 0 ? "; Postfix is not running" : "";
        throw Failure("reload", "failed: " + failure + state, activation.command(fixed));
    }
    const bool isUp = call_.request.reload && activation.wasRunning();
    report_.finding({Level::done, "rollback",
                     "everything is as it was at " + stamp_ +
                         (made_.empty() ? "" : "; what was there is backup " + made_),
                     isUp ? "" : activation.command(fixed)});
}

/// For the next rollback: what somebody changes from now on.
void Rollback::keepLeftState() {
    if (made_.empty()) {
        return;
    }
    try {
        const Backup made = backups_.find(made_).value();
        backups_.keepLeftState(made_, captureState(askPostfix(), made.manifest.paths));
    } catch (const std::exception& error) {
        report_.finding({Level::warning, "backup",
                         std::string("a next rollback will not see later changes: ") + error.what(),
                         "keep a copy of what you change"});
    }
}

} // namespace

int rollback(Call& call) {
    const HostLock lock = lockHost(rollbackPatience);
    holdSignals();
    Rollback(call).perform();
    return 0;
}

} // namespace torva::ctl
