#include "ctl/backup/Backups.h"
#include "ctl/backup/Changes.h"
#include "ctl/backup/ForeignChanges.h"
#include "ctl/backup/Lock.h"
#include "ctl/backup/Marker.h"
#include "ctl/backup/Restore.h"
#include "ctl/findings/HostFindings.h"
#include "ctl/verbs/Activation.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Run.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"

#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace torva::ctl {

namespace {

constexpr int applyPatience = 3; ///< in tenths of a second: "check" may hold the lock for a moment

class Apply {
public:
    Apply(Call& call, const Host& host) : call_(call), report_(call.report), host_(host) {}

    int perform() {
        try {
            backUp();
            runTool();
            verify();
            activate();
            finish();
            return 0;
        } catch (const Failure& failure) {
            report_.finding(failure.finding());
        } catch (const std::exception& error) {
            report_.finding({Level::failed, "apply", error.what(), "see the messages above"});
        }
        return takeBack();
    }

private:
    void backUp();
    void runTool();
    void verify();
    void activate();
    void finish();
    int takeBack();
    bool restoreBackup();
    std::string activateAgain();
    std::string foreignWork(const Manifest& manifest) const;
    bool keepForeignChanges(const Manifest& manifest);
    void keepRestoredState();
    FixedAtStart fixedNow() const;

    Call& call_;
    Report& report_;
    Host host_;
    Backups backups_;
    std::string stamp_; ///< of the backup; empty: none yet
    std::optional<LeftState> before_;
    std::unique_ptr<Activation> activation_;
};

FixedAtStart Apply::fixedNow() const {
    return fixedAtStart(askPostfix(), readMasterCf(host_.postfix));
}

void Apply::backUp() {
    setMarker(backups_, {"apply", "-", false});
    activation_ =
        std::make_unique<Activation>(host_.postfix, fixedAtStart(host_.postfix, host_.masterCf));
    std::string stamp;
    try {
        const Manifest manifest = manifestOf(host_.postfix, "before apply");
        before_ = captureState(host_.postfix, manifest.paths);
        stamp = backups_.take(manifest);
    } catch (const std::exception& error) {
        throw Failure("backup", std::string("it cannot be made: ") + error.what(),
                      cureOfBackup(error));
    }
    setMarker(backups_, {"apply", stamp, activation_->wasRunning()});
    stamp_ = stamp;
    report_.finding({Level::done, "backup", std::string(Backups::path) + "/" + stamp_,
                     "to take the run back: torva-postfixctl rollback"});
    throwIfSignalled();
}

void Apply::runTool() {
    const Manifest before = backups_.find(stamp_).value().manifest;
    const int progress = report_.json() ? STDERR_FILENO : STDOUT_FILENO;
    const RunResult result =
        performRun(host_, before, {progress, call_.request.emptyTables, false});
    throwIfSignalled();
    if (result.status != 0) {
        throw Failure("run",
                      "torva-postfix-setup ended with status " + std::to_string(result.status),
                      "see its message above");
    }
    report_.findings(result.findings);
}

void Apply::verify() {
    const Verdict verdict = [] {
        const RunLock lock; // it creates directories, even after we are killed
        return postfixCheck();
    }();
    throwIfSignalled();
    if (verdict.status != 0) {
        throw Failure("postfix-check", "failed: " + verdict.text, "correct it");
    }
    if (!verdict.text.empty()) {
        report_.finding({Level::warning, "postfix-check", verdict.text, "correct it"});
    }
}

void Apply::activate() {
    if (!call_.request.reload) {
        return;
    }
    const std::string failure = activation_->activate(fixedNow());
    if (!failure.empty()) {
        throw Failure("reload", "failed: " + failure, activation_->whereToLook());
    }
    throwIfSignalled();
}

void Apply::finish() {
    const Postfix after = askPostfix();
    const Manifest manifest = backups_.find(stamp_).value().manifest;
    const LeftState left = captureState(after, manifest.paths);
    backups_.keepLeftState(stamp_, left);
    if (!call_.request.reload) {
        if (const auto warning = activation_->leaveRunning(fixedNow())) {
            report_.finding(*warning);
        }
    }
    ::sync();
    clearMarker(backups_);
    Findings findings;
    findOutcome(after, readMasterCf(after), host_.mapTypes, findings);
    report_.findings(findings.all());
    const std::vector<Change> foreign = foreignChanges(manifest, before_.value(), left);
    if (!foreign.empty()) {
        report_.finding({Level::warning, "backup",
                         "somebody else changed " + foreign.front().name +
                             " during this apply; a rollback takes that back, too",
                         "after a rollback, change it again"});
    }
    const bool isUp = call_.request.reload && activation_->wasRunning();
    report_.finding({Level::done, "apply", "torva-postfix-setup has configured Postfix",
                     isUp ? "" : activation_->command(fixedNow())});
}

/// What somebody else has changed meanwhile, in words; empty: nothing.
std::string Apply::foreignWork(const Manifest& manifest) const {
    try {
        const LeftState now = captureState(askPostfix(), manifest.paths);
        const auto changes = foreignChanges(manifest, before_.value(), now);
        return changes.empty() ? ""
                               : "somebody else changed " + changes.front().name + " meanwhile";
    } catch (const std::exception& error) {
        return std::string("somebody else may have changed something meanwhile, which cannot be "
                           "told: ") +
               error.what();
    }
}

/// Backs up changes that somebody else has made meanwhile: the restoration would lose them.
///
/// \return whether there were any, or that could not be told
bool Apply::keepForeignChanges(const Manifest& manifest) {
    const std::string work = foreignWork(manifest);
    if (work.empty()) {
        return false;
    }
    try {
        const std::string kept = backups_.take(
            manifestOf(host_.postfix, "before taking back the apply of " + stamp_, manifest.paths));
        report_.finding({Level::warning, "backup", work + "; what was there is backup " + kept,
                         "torva-postfixctl rollback " + kept + ", or change it again"});
    } catch (const std::exception& error) { // the restoration is more important
        report_.finding({Level::warning, "backup",
                         work + "; what was there could not be backed up: " + error.what(),
                         "change it again"});
    }
    return true;
}

/// \return whether the backup must be kept: it holds what somebody else has made meanwhile
bool Apply::restoreBackup() {
    const RunLock lock; // a killed run may have left a child at work
    const Backup backup = backups_.find(stamp_).value();
    const bool isForeign = keepForeignChanges(backup.manifest);
    restore(backups_, backup);
    const std::vector<std::string> uncertain = setScratchAside(backups_, backup);
    printSetAside(report_, uncertain, stamp_);
    if (masterProcess(host_.postfix) == 0) { // a running Postfix needs them
        removeQueueDirectories(backup);
    }
    return isForeign || !uncertain.empty();
}

/// Makes Postfix use the restored files, if it has been made to use the others.
///
/// \return why that failed; empty: it succeeded, or there was nothing to do
std::string Apply::activateAgain() {
    return activation_ && activation_->tried() ? activation_->activate(fixedNow()) : std::string();
}

/// For the next rollback: what somebody changes from now on.
void Apply::keepRestoredState() {
    try {
        const Manifest manifest = backups_.find(stamp_).value().manifest;
        backups_.keepLeftState(stamp_, captureState(askPostfix(), manifest.paths));
    } catch (const std::exception& error) {
        report_.finding({Level::warning, "backup",
                         std::string("a next rollback will not see later changes: ") + error.what(),
                         "keep a copy of what you change"});
    }
}

/// The end of a failed apply.
int Apply::takeBack() {
    ignoreSignals();
    std::string failure; // of the activation
    try {
        const bool isKept = stamp_.empty() || restoreBackup();
        failure = activateAgain();
        if (isKept && !stamp_.empty()) {
            keepRestoredState();
        }
        clearMarker(backups_); // not before: if killed until here, Postfix may be stopped
        if (!isKept) {
            backups_.remove(stamp_); // it is identical to the host
        }
    } catch (const std::exception& error) {
        report_.finding({Level::failed, "rollback",
                         "the backup " + stamp_ + " could not be restored whole: " + error.what(),
                         cureOf(error) + ", then torva-postfixctl rollback"});
        return 2;
    }
    if (!failure.empty()) {
        report_.finding(
            {Level::failed, "reload", "failed: " + failure, activation_->command(fixedNow())});
    }
    if (!failure.empty() && masterProcess(host_.postfix) == 0) {
        report_.finding({Level::failed, "apply",
                         "the files are as they were before, but Postfix is not running",
                         activation_->command(fixedNow())});
        return 2;
    }
    report_.finding({Level::failed, "apply", "everything is as it was before",
                     "remove the cause, then torva-postfixctl apply"});
    return 1;
}

} // namespace

int apply(Call& call) {
    const HostLock lock = lockHost(applyPatience);
    const Marker marker = readMarker();
    if (marker.isSet() && !marker.beforeAnyChange()) {
        return 2; // already reported
    }
    awaitEarlierRun();
    Host host;
    call.report.findings(checkHost(call.programs, host).all());
    if (call.report.stopped()) {
        throw Failure("apply", "nothing was changed", "follow the lines above that say stop");
    }
    holdSignals();
    return Apply(call, host).perform();
}

} // namespace torva::ctl
