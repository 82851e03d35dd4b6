#include "ctl/verbs/Describe.h"

#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "ctl/host/TouchedPaths.h"
#include "ctl/report/Printable.h"
#include "torva/util/SystemError.h"

#include <cerrno>

namespace torva::ctl {

namespace {

/// The paths of everything in a directory.
void appendPresent(const std::string& directory, std::vector<std::string>& present) {
    if (!exists(directory)) {
        return;
    }
    for (const std::string& name : namesIn(openDirectory(resolved(directory)).get())) {
        present.push_back(directory + "/" + name);
    }
}

std::string lineFor(const Change& change) {
    // A name with a line feed must not look like another line. Texts of services have some.
    const std::string what = change.kind + " " + oneLine(change.name);
    const auto shown = [&](const std::string& text) {
        return change.kind == "service" ? text : oneLine(text);
    };
    std::string line;
    if (!change.before.empty() || change.after.empty()) {
        line += "- " + what + ": " + shown(change.before) + "\n";
    }
    if (!change.after.empty() || change.before.empty()) {
        line += "+ " + what + ": " + shown(change.after) + "\n";
    }
    return line;
}

} // namespace

Manifest manifestOf(const Postfix& postfix, const std::string& reason,
                    const std::vector<std::string>& more) {
    Manifest manifest;
    manifest.reason = reason;
    manifest.configuration = postfix.directory;
    manifest.queue = postfix.queueDirectory();
    manifest.configured = isConfigured(postfix, readMasterCf(postfix));
    manifest.running = masterProcess(postfix) != 0;
    manifest.paths = touchedPaths(postfix);
    manifest.paths.insert(manifest.paths.end(), more.begin(), more.end());
    manifest.paths = withoutNested(manifest.paths);
    appendPresent(manifest.configuration, manifest.present);
    appendPresent(manifest.queue, manifest.present);
    return manifest;
}

Finding troubleOf(const std::exception& error, const std::string& verb) {
    if (const auto* untrusted = dynamic_cast<const Untrusted*>(&error)) {
        return {Level::failed, "directory", untrusted->what(), untrusted->advice()};
    }
    return {Level::failed, verb, error.what(), "remove the cause, then torva-postfixctl " + verb};
}

void printSetAside(Report& report, const std::vector<std::string>& names,
                   const std::string& stamp) {
    for (const std::string& name : names) {
        report.finding({Level::warning, "backup",
                        name + ", which was new, is now set-aside." + name + " in backup " + stamp,
                        "if it is not of the run, move it back"});
    }
}

std::string cureOf(const std::exception& error) {
    const auto* failed = dynamic_cast<const SystemError*>(&error);
    const int code = failed == nullptr ? 0 : failed->code();
    if (code == ENOSPC || code == EDQUOT) {
        return "make room";
    }
    if (code == EPERM || code == EACCES || code == EROFS) {
        return "make it writable (see mount, lsattr)";
    }
    return "remove the cause";
}

std::string cureOfBackup(const std::exception& error) {
    const std::string cure = cureOf(error);
    const bool isOfRoom = dynamic_cast<const SystemError*>(&error) == nullptr;
    return isOfRoom || cure == "make room" ? std::string("is there room in ") + Backups::path + "?"
                                           : cure;
}

Finding otherInstance(const std::string& verb, const Backup& backup) {
    const std::string& configuration = backup.manifest.configuration;
    return {Level::failed, verb,
            "the backup " + backup.stamp + " is of another instance of Postfix, " + configuration +
                "; nothing was done",
            "MAIL_CONFIG=" + configuration + " torva-postfixctl " + verb + " " + backup.stamp};
}

void printChanges(Report& report, const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        report.object({{"change", change.kind},
                       {"name", change.name},
                       {"before", change.before},
                       {"after", change.after}},
                      lineFor(change));
    }
}

} // namespace torva::ctl
