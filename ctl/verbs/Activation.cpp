#include "ctl/verbs/Activation.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <set>

namespace torva::ctl {

namespace {

/// The unit of systemd that a process belongs to, see cgroup in proc(5): the last
/// component of its control group; empty when systemd does not run this host.
std::string unitOf(int process) {
    if (process == 0 || !exists("/run/systemd/system")) {
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

/// What failed; empty after success.
std::string failureOf(const ToolResult& result) {
    return result.succeeded() ? std::string() : wordsOf(result);
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
      unit_(unitOf(masterProcess(postfix))) {}

bool Activation::needsRestart(const FixedAtStart& now) const {
    return !(now == before_);
}

std::string Activation::command(const FixedAtStart& now) const {
    if (!wasRunning_ || masterProcess(postfix_) == 0) {
        return "postfix start";
    }
    if (!unit_.empty()) {
        return std::string("systemctl ") + (needsRestart(now) ? "restart " : "reload ") + unit_;
    }
    return needsRestart(now) ? "postfix stop && postfix start" : "postfix reload";
}

std::string Activation::activate(const FixedAtStart& now) {
    if (!wasRunning_) {
        return std::string();
    }
    tried_ = true;
    std::string failure = unit_.empty() ? activateItself(now) : activateUnit(now);
    if (failure.empty()) {
        before_ = now; // the settings of the daemon from now on
    }
    return failure;
}

std::string Activation::activateUnit(const FixedAtStart& now) const {
    return failureOf(
        run({"systemctl", needsRestart(now) ? "restart" : "reload-or-restart", unit_}));
}

std::string Activation::activateItself(const FixedAtStart& now) const {
    const bool runs = masterProcess(postfix_) != 0;
    if (runs && !needsRestart(now)) {
        return failureOf(run({"/usr/sbin/postfix", "reload"}));
    }
    const std::string failure =
        runs ? failureOf(run({"/usr/sbin/postfix", "stop"})) : std::string();
    return failure.empty() ? failureOf(run({"/usr/sbin/postfix", "start"})) : failure;
}

} // namespace torva::ctl
