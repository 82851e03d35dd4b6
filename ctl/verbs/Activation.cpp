#include "ctl/verbs/Activation.h"

#include "ctl/backup/Directory.h"
#include "ctl/host/Files.h"
#include "ctl/host/Program.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <set>
#include <sstream>

namespace torva::ctl {

namespace {

/// See sd_booted(3).
bool systemdRunsHost() {
    return exists("/run/systemd/system");
}

/// The unit of systemd that a process belongs to, see cgroup in proc(5): the last
/// component of its control group; empty when systemd does not run this host.
std::string unitOf(int process) {
    if (process == 0 || !systemdRunsHost()) {
        return std::string();
    }
    const std::string group = boost::algorithm::trim_copy(
        readFile("/proc/" + std::to_string(process) + "/cgroup").value_or(""));
    const std::string unit = nameOf(group);
    return boost::algorithm::ends_with(unit, ".service") &&
                   unit.find("postfix") != std::string::npos
               ? unit
               : std::string();
}

/// The unit to restart for a Postfix that does not run. A start would not do: a unit that
/// has started the daemon and ended counts as active. Empty: systemd does not start it.
std::string unitToStart(const Postfix& postfix) {
    const std::string unit = "postfix.service";
    const std::string own = "/etc/systemd/system/" + unit;
    const bool isMasked = resolved(own) == "/dev/null"; // systemd would refuse to start it
    const bool isThere = !isMasked && (exists(own) || exists("/lib/systemd/system/" + unit));
    return systemdRunsHost() && isThere && postfix.directory == "/etc/postfix" ? unit
                                                                               : std::string();
}

const char longest[] = "300"; ///< seconds that a service manager gets
const char noteDirectory[] = "/run/lock/torva-postfix";

/// The note that a daemon needs a restart, by its process id.
std::string noteFor(int process) {
    return "restart-" + std::to_string(process);
}

/// When a process started, in the words of /proc: the id alone may be used again.
std::string startOf(int process) {
    const std::string text = readFile("/proc/" + std::to_string(process) + "/stat").value_or("");
    std::istringstream fields(text.substr(std::min(text.rfind(')'), text.size())));
    std::string field;
    for (int number = 2; number <= 22 && fields >> field; ++number) {
    }
    return field;
}

bool needsRestartSinceBefore(int process) {
    const process::Descriptor directory =
        process == 0 ? process::Descriptor() : openOwnDirectoryIfThere(noteDirectory);
    const std::string note =
        directory ? readOwnFile(directory.get(), noteFor(process)) : std::string();
    return !note.empty() && note == startOf(process);
}

constexpr int outOfTime = 124; ///< exit status of timeout(1)

/// Runs a command that stops or starts Postfix. An interrupt from the terminal does not reach
/// it, because timeout(1) makes a process group of its own: Postfix would be left stopped. A
/// service manager that never answers is not waited for without end.
///
/// \return what failed; empty after success
std::string failureOf(const std::vector<std::string>& command) {
    Program program;
    program.words = {"timeout", longest};
    program.words.insert(program.words.end(), command.begin(), command.end());
    program.purpose = boost::algorithm::join(command, " ");
    const ToolResult result = run(program);
    if (exitStatus(result) == outOfTime) {
        return program.purpose + " did not end within " + longest + " seconds";
    }
    std::string words = result.succeeded() ? std::string() : wordsOf(result);
    if (boost::algorithm::starts_with(words, "timeout: ")) { // it could not run the command
        return command.front() + ": " + words.substr(words.rfind(": ") + 2);
    }
    return words;
}

} // namespace

FixedAtStart fixedAtStart(const Postfix& postfix, const MasterCfText& masterCf) {
    std::set<std::string> types;
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        if (entry.name() == "pickup") {
            types.insert(entry.type());
        }
    }
    FixedAtStart fixed{postfix.value("inet_interfaces"), postfix.value("inet_protocols"), ""};
    for (const std::string& type : types) {
        fixed.pickupTypes += type + " ";
    }
    return fixed;
}

Activation::Activation(const Postfix& postfix, const FixedAtStart& before)
    : postfix_(postfix),
      before_(before),
      wasRunning_(masterProcess(postfix) != 0),
      inDoubt_(needsRestartSinceBefore(masterProcess(postfix))),
      unit_(unitOf(masterProcess(postfix))) {}

bool Activation::needsRestart(const FixedAtStart& now) const {
    return inDoubt_ || !(now == before_);
}

std::vector<std::string> Activation::unitCommand(const FixedAtStart& now) const {
    // The second starts a unit that has stopped, too.
    return {"systemctl", needsRestart(now) ? "restart" : "reload-or-restart", unit_};
}

std::string Activation::command(const FixedAtStart& now) const {
    if (!unit_.empty()) {
        return boost::algorithm::join(unitCommand(now), " ");
    }
    if (masterProcess(postfix_) == 0) {
        const std::string unit = unitToStart(postfix_);
        return unit.empty() ? "postfix start" : "systemctl restart " + unit;
    }
    return needsRestart(now) ? "postfix stop && postfix start" : "postfix reload";
}

std::string Activation::whereToLook() const {
    return unit_.empty() ? "see the mail log" : "systemctl status " + unit_ + ", and the mail log";
}

std::string Activation::activate(const FixedAtStart& now) {
    if (!wasRunning_) {
        return std::string();
    }
    tried_ = true;
    std::string failure = unit_.empty() ? activateItself(now) : failureOf(unitCommand(now));
    if (failure.empty()) {
        before_ = now; // the settings of the daemon from now on
        inDoubt_ = false;
    } else if (needsRestart(now)) {
        inDoubt_ = true; // it may have started and be running nevertheless
    }
    return failure;
}

std::optional<Finding> Activation::leaveRunning(const FixedAtStart& now) const {
    const int process = masterProcess(postfix_);
    if (process == 0 || !needsRestart(now)) {
        return std::nullopt;
    }
    try {
        writeOwnFile(openOwnDirectory(noteDirectory).get(), noteFor(process), startOf(process));
        return std::nullopt;
    } catch (const std::exception& error) {
        return Finding{Level::warning, "reload",
                       std::string("a later --reload will not know that Postfix must be stopped "
                                   "and started: ") +
                           noteDirectory + ": " + error.what(),
                       command(now)};
    }
}

std::string Activation::activateItself(const FixedAtStart& now) const {
    const bool runs = masterProcess(postfix_) != 0;
    if (runs && !needsRestart(now)) {
        return failureOf({"/usr/sbin/postfix", "reload"});
    }
    const std::string unit = runs ? std::string() : unitToStart(postfix_);
    if (!unit.empty()) {
        return failureOf({"systemctl", "restart", unit});
    }
    const std::string failure = runs ? failureOf({"/usr/sbin/postfix", "stop"}) : std::string();
    return failure.empty() ? failureOf({"/usr/sbin/postfix", "start"}) : failure;
}

} // namespace torva::ctl
