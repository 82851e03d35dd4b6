#include "ctl/backup/Backups.h"
#include "ctl/backup/Changes.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Signals.h"
#include "ctl/verbs/Verbs.h"

#include <optional>

namespace torva::ctl {

namespace {

constexpr int trouble = 2;

/// The backup of the apply to compare with.
std::optional<Backup> chosenBackup(const std::string& stamp, const Postfix& postfix) {
    if (!Backups::exist()) {
        return std::nullopt;
    }
    const Backups backups;
    return stamp.empty() ? backups.newestWithLeftState(postfix.directory) : backups.find(stamp);
}

} // namespace

int diff(Call& call) {
    endAtSignals();
    const Postfix postfix = askPostfix();
    const std::optional<Backup> backup = chosenBackup(call.request.stamp, postfix);
    if (!backup || !backup->hasLeftState) {
        call.report.finding({Level::failed, "diff",
                             "no apply that has ended, or its backup is not whole",
                             "torva-postfixctl backups"});
        return trouble;
    }
    if (!backup->ofInstance(postfix.directory)) {
        call.report.finding(otherInstance("diff", *backup));
        return trouble;
    }
    try {
        const LeftState left = Backups().leftState(backup->stamp);
        const auto changes = changesBetween(left, captureState(postfix, backup->manifest.paths));
        printChanges(call.report, changes);
        return changes.empty() ? 0 : 1;
    } catch (const std::exception& error) {
        call.report.finding({Level::failed, "diff",
                             std::string("the host cannot be read: ") + error.what(),
                             "correct it, or torva-postfixctl rollback --force"});
        return trouble;
    }
}

} // namespace torva::ctl
