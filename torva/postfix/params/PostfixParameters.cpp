#include "torva/postfix/params/PostfixParameters.h"

#include "torva/postfix/params/ListValue.h"
#include "torva/postfix/params/LocalNetworks.h"
#include "torva/postfix/params/MessageScan.h"
#include "torva/postfix/params/PostfixTool.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"

#include <boost/algorithm/string/trim.hpp>

#include <ctime>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>

namespace torva::mail::postfix {

namespace {

const char postconf[] = "/usr/sbin/postconf";

void requireName(const std::string& name) {
    if (name.empty() || name.front() == '-') {
        throw std::invalid_argument("not a parameter: " + name);
    }
}

/// What postconf prints for a parameter; nothing for one that it does not know.
std::string askPostconf(std::vector<std::string> command, const std::string& name) {
    requireName(name);
    command.insert(command.begin(), postconf);
    command.push_back(name);
    const ToolResult result = runTool(command);
    // postconf can exit 0 after a "fatal:" message; then it has printed no value.
    if (!result.succeeded() ||
        (result.output.empty() && reportsFailure(result.error, Severity::lenient))) {
        throw PostfixConfigurationError(result.message());
    }
    return result.output;
}

std::string readParameter(const std::string& name, bool defaults) {
    const std::vector<std::string> options =
        defaults ? std::vector<std::string>{"-h", "-d"} : std::vector<std::string>{"-h"};
    return boost::algorithm::trim_right_copy(askPostconf(options, name));
}

/// Moves the modification time of a file five seconds back. A Postfix program that reads
/// main.cf within about two seconds of its last change sleeps until the file is older, so
/// as not to read half a change. Here the change is complete, and the run reads after
/// nearly every write: it would sleep for most of a minute. Best effort: at worst the next
/// program sleeps.
void agePastChangeWindow(const std::string& path) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    if (::clock_gettime(CLOCK_REALTIME, &times[1]) == 0) {
        times[1].tv_sec -= 5;
        static_cast<void>(::utimensat(AT_FDCWD, path.c_str(), times, 0));
    }
}

} // namespace

PostfixParameters& PostfixParameters::instance() {
    static PostfixParameters parameters;
    return parameters;
}

PostfixParameters::PostfixParameters() : path_(mainCfPath()) {}

std::string PostfixParameters::getParameter(const std::string& name, bool defaults) {
    std::string value = readParameter(name, defaults);
    if (name != "mynetworks" || defaults) {
        return value;
    }
    const std::string builtIn = readParameter(name, true);
    return replaceDefaultNetworks(value, builtIn, hostNetworks());
}

std::string PostfixParameters::getExpandedParameter(const std::string& name) {
    return boost::algorithm::trim_right_copy(askPostconf({"-hx"}, name));
}

bool PostfixParameters::hasParameter(const std::string& name) {
    // For a parameter that is set to nothing, postconf prints an empty line.
    return !askPostconf({"-h"}, name).empty();
}

void PostfixParameters::setParameter(const std::string& name, const std::string& value) {
    requireName(name);
    if (name.find('=') != std::string::npos) {
        throw std::invalid_argument("not a parameter: " + name);
    }
    // The name of the lock is a constant: asking Postfix for the path, just to name the
    // lock, would cost a process for every change.
    const FileLock lock("/etc/postfix/main.cf", LockMode::wait);
    const ToolResult result = runTool({postconf, "-e", name + "=" + value});
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.message());
    }
    agePastChangeWindow(path_);
}

std::string PostfixParameters::mainCfPath() {
    std::string directory;
    try {
        directory = getParameter("config_directory");
    } catch (const std::exception&) {
        // postconf knows the built-in default even when main.cf is unreadable.
        directory = getParameter("config_directory", true);
    }
    if (directory.empty()) {
        throw PostfixConfigurationError("unable to determine Postfix config_directory parameter");
    }
    return directory + "/main.cf";
}

void PostfixParameters::addToListParameter(const std::string& name, const std::string& value) {
    const std::string current = getParameter(name);
    const std::optional<std::string> changed = withElement(current, value);
    if (changed) {
        setParameter(name, *changed);
    } else if (name == "mynetworks") {
        // The value may be the narrow list that replaces Postfix's default: it takes
        // effect only once it is in main.cf.
        setParameter(name, current);
    }
}

void PostfixParameters::removeFromListParameter(const std::string& name, const std::string& value) {
    if (const auto changed = withoutElement(getParameter(name), value)) {
        setParameter(name, *changed);
    }
}

void PostfixParameters::addRestriction(const std::string& name, const std::string& key,
                                       const std::string& table) {
    if (const auto changed = withRestriction(getParameter(name), key + " " + table)) {
        setParameter(name, *changed);
    }
}

} // namespace torva::mail::postfix
