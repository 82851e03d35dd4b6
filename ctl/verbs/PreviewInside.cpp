#include "ctl/backup/Archive.h"
#include "ctl/findings/HostFindings.h"
#include "ctl/host/Files.h"
#include "ctl/host/PrivateWorld.h"
#include "ctl/host/Program.h"
#include "ctl/host/Shelter.h"
#include "ctl/rehearsal/Rehearsal.h"
#include "ctl/report/Printable.h"
#include "ctl/verbs/Describe.h"
#include "ctl/verbs/Failure.h"
#include "ctl/verbs/Run.h"
#include "ctl/verbs/Verbs.h"

#include <boost/algorithm/string/trim.hpp>

#include <cstdio>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace torva::ctl {

namespace {

/// The host in the private world before the run.
struct Before {
    Settings settings;
    std::string masterCf;
    Manifest manifest;
};

Before lookBefore(const Host& host) {
    // No backup: the private world is in memory, and goes anyway.
    Manifest manifest = manifestOf(host.postfix, "before preview");
    manifest.entries = describe(manifest.paths);
    return {host.postfix.settings, readFile(host.postfix.masterCf()).value_or(""),
            std::move(manifest)};
}

void showSettings(Report& report, const Settings& before, const Settings& after) {
    report.heading("main.cf: settings that differ (postconf -n)");
    Settings all = before;
    all.insert(after.begin(), after.end());
    for (const auto& one : all) {
        const std::string& name = one.first;
        const auto old = before.find(name);
        const auto now = after.find(name);
        const std::string oldValue = old == before.end() ? "" : old->second;
        const std::string newValue = now == after.end() ? "" : now->second;
        if (old != before.end() && now != after.end() && oldValue == newValue) {
            continue;
        }
        std::string line;
        if (old != before.end()) {
            line += "- " + boost::algorithm::trim_right_copy(name + " = " + oldValue) + "\n";
        }
        if (now != after.end()) {
            line += "+ " + boost::algorithm::trim_right_copy(name + " = " + newValue) + "\n";
        }
        report.object(
            {{"change", "setting"}, {"name", name}, {"before", oldValue}, {"after", newValue}},
            line);
    }
}

void showMasterCf(Report& report, const Postfix& postfix, const std::string& before) {
    report.heading("master.cf");
    Program diff;
    diff.words = {"diff", "-u", "--label", "before", "--label", "after", "-", postfix.masterCf()};
    diff.input = before;
    const ToolResult result = run(diff);
    std::string text = result.output + result.error;
    text.erase(text.find_last_not_of('\n') + 1);
    report.object({{"change", "master.cf"}, {"diff", text}},
                  (text.empty() ? "(no difference)" : text) + "\n");
}

/// The mode as ls(1) prints it.
std::string modeText(mode_t mode) {
    std::string text(1, S_ISLNK(mode) ? 'l' : S_ISDIR(mode) ? 'd' : S_ISREG(mode) ? '-' : '?');
    const char letters[] = "rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) {
        text += (mode & (0400U >> bit)) != 0 ? letters[bit] : '-';
    }
    return text;
}

std::string ownerText(const Entry& entry) {
    const passwd* user = ::getpwuid(entry.owner);
    const group* group = ::getgrgid(entry.group);
    return (user == nullptr ? std::to_string(entry.owner) : user->pw_name) + std::string(":") +
           (group == nullptr ? std::to_string(entry.group) : group->gr_name);
}

void showFiles(Report& report, const Snapshot& before, const Snapshot& after) {
    report.heading("files created or changed");
    for (const auto& [path, entry] : after) {
        const auto old = before.find(path);
        const bool isNew = old == before.end() || !old->second.isThere();
        if (!entry.isThere() || entry.isDirectory() ||
            (!isNew && sameContents(old->second, entry))) {
            continue;
        }
        const char* kind = isNew ? "created" : "changed";
        char head[128];
        std::snprintf(head, sizeof(head), "%-8s %s %-16s %9llu ", kind,
                      modeText(entry.mode).c_str(), ownerText(entry).c_str(),
                      static_cast<unsigned long long>(entry.size));
        report.object({{"change", kind},
                       {"mode", modeText(entry.mode)},
                       {"owner", ownerText(entry)},
                       {"bytes", static_cast<long long>(entry.size)},
                       {"path", path}},
                      head + oneLine(path) + "\n");
    }
}

/// Where there are many services, most of the time of "postfix check" would be spent reading
/// them, again and again. Those that the run has left alone, and that Postfix accepted before
/// it, are comments for that time.
///
/// \param before  the host before the run
Verdict verdictOn(const Host& before, const Postfix& postfix) {
    const std::string masterCf = readFile(postfix.masterCf()).value_or("");
    const ServiceFilter uninvolved =
        uninvolvedServices(masterCf, readFile(postfix.mainCf()).value_or(""));
    if (!uninvolved || !before.masterFailure.empty()) {
        return postfixCheck();
    }
    replaceText(postfix.masterCf(), withoutServices(masterCf, uninvolved));
    Verdict verdict = postfixCheck();
    replaceText(postfix.masterCf(), masterCf);
    return verdict;
}

void showVerdict(Report& report, const Host& before, const Postfix& postfix) {
    report.heading("postfix check, and what it does not see");
    const Verdict verdict = verdictOn(before, postfix);
    report.object({{"change", "postfix-check"}, {"status", verdict.status}, {"text", verdict.text}},
                  "exit status " + std::to_string(verdict.status) +
                      (verdict.text.empty() ? "" : ": " + verdict.text) + "\n");
}

/// \param before  the host before the run; what its Postfix supports has not changed
void showOutcome(Report& report, const Host& before, const Postfix& after) {
    Findings findings;
    findSupport(before, findings);
    findOutcome(after, readMasterCf(after), before.mapTypes, findings);
    report.findings(findings.all());
}

void showDelivery(Report& report, const Postfix& after) {
    report.heading("delivery");
    report.findings(rehearse({after.directory, after.value("myhostname"), hasNamespaces()}));
}

/// What an apply would not begin for. A run can nevertheless show what it would do to a
/// master.cf that Postfix refuses.
///
/// \return whether there is something
/// \throws Failure  Postfix does not read main.cf
bool tellUnreadable(const Host& host, Report& report) {
    Findings findings;
    if (findReadable(host, findings) || !findings.stopped()) {
        return false;
    }
    report.findings(findings.all());
    if (host.masterFailure.empty()) {
        throw Failure("preview", "an apply would change nothing on this host",
                      "follow the lines above that say stop");
    }
    return true;
}

HostNames namesIn(const std::vector<std::string>& texts) {
    return {texts.at(0), texts.at(1), texts.at(2)};
}

} // namespace

int previewInside(Call& call) {
    if (!inPrivateWorld()) {
        complain("--inside is for this program's own use");
        return 1;
    }
    Report& report = call.report;
    for (const std::string& missing : imitate(namesIn(call.request.inside))) {
        complain(missing);
    }
    Host host = askHost(call.programs);
    if (hasNamespaces()) {
        coverRest(host.postfix);
    }
    const bool isUnreadable = tellUnreadable(host, report);
    const Before before = lookBefore(host);
    report.heading("torva-postfix-setup");
    const int progress = report.json() ? STDERR_FILENO : STDOUT_FILENO;
    const RunResult result =
        performRun(host, before.manifest, {progress, call.request.emptyTables, true});
    report.findings(result.findings);
    const Postfix after = askPostfix();
    showSettings(report, before.settings, after.settings);
    showMasterCf(report, after, before.masterCf);
    showFiles(report, before.manifest.entries, describe(before.manifest.paths));
    showVerdict(report, host, after);
    showOutcome(report, host, after);
    if (call.request.deliver) {
        showDelivery(report, after);
    }
    if (call.request.archive >= 0) {
        writeArchive(call.request.archive, before.manifest.paths);
    }
    report.object({{"change", "exit"}, {"status", result.status}},
                  "\n=== exit status of torva-postfix-setup: " + std::to_string(result.status) +
                      "\n");
    return result.status == 0 && isUnreadable ? 1 : result.status;
}

} // namespace torva::ctl
