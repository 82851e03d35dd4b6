#include "ctl/rehearsal/Configuration.h"

#include "ctl/rehearsal/Mounting.h"
#include "ctl/rehearsal/WatchedTool.h"
#include "torva/util/SystemError.h"

#include <boost/filesystem/operations.hpp>

#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace torva::ctl::rehearsal {
namespace {

namespace fs = boost::filesystem;

const char* const postconf = "/usr/sbin/postconf";
const char* const debianPreparation = "/usr/lib/postfix/configure-instance.sh";
const char* const debianDirectory = "/etc/postfix";
const char* const clientName = "outside.example";

std::string requireOutput(MailLog& log, const std::vector<std::string>& command,
                          const Deadline& deadline) {
    const ToolOutcome outcome = runWatched(log, command, deadline);
    if (!outcome.succeeded()) {
        throw std::runtime_error(outcome.said().empty() ? command.front() + " failed"
                                                        : outcome.said());
    }
    return outcome.output;
}

// Lines "name = value".
std::map<std::string, std::string> parseSettings(const std::string& text) {
    std::map<std::string, std::string> settings;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t mark = line.find(" =");
        if (mark != std::string::npos && line.find(' ') == mark) {
            settings[line.substr(0, mark)] = line.size() > mark + 3 ? line.substr(mark + 3) : "";
        }
    }
    return settings;
}

// Postfix's programs wait while main.cf is younger than about two seconds.
void makeOlder(const std::string& path) {
    timespec past[2] = {{::time(nullptr) - 10, 0}, {::time(nullptr) - 10, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), past, 0);
}

} // namespace

std::string Configuration::get(const std::string& name) const {
    const auto found = expanded.find(name);
    return found == expanded.end() ? std::string() : found->second;
}

Configuration readConfiguration(MailLog& log, const std::string& directory,
                                const Deadline& deadline) {
    Configuration configuration;
    configuration.directory = directory;
    configuration.expanded = parseSettings(
        requireOutput(log,
                      {postconf, "-c", directory, "-x", "queue_directory", "daemon_directory",
                       "command_directory", "mail_spool_directory", "sendmail_path", "maillog_file",
                       "myhostname", "mynetworks", "master_service_disable"},
                      deadline));
    configuration.myDestination = parseSettings(requireOutput(
        log, {postconf, "-c", directory, "mydestination"}, deadline))["mydestination"];
    // If Postfix refuses master.cf, starting it reports that.
    configuration.services =
        parseServices(runWatched(log, {postconf, "-c", directory, "-M"}, deadline).output);
    return configuration;
}

void logToSystem(MailLog& log, const Configuration& configuration, const std::string& scratch,
                 const Deadline& deadline) {
    if (configuration.get("maillog_file").empty()) {
        return;
    }
    const std::string copy = scratch + "/configuration";
    makeDirectory(copy);
    copyOwnership(configuration.directory, copy);
    requireOutput(log, {"cp", "-a", "--", configuration.directory + "/.", copy}, deadline);
    bindMount(copy, configuration.directory);
    requireOutput(log, {postconf, "-c", configuration.directory, "-e", "maillog_file="}, deadline);
    makeOlder(configuration.directory + "/main.cf");
}

void prepareNames(MailLog& log, const Configuration& configuration,
                  const std::string& clientAddress, const Deadline& deadline) {
    std::ofstream("/etc/hosts", std::ios::app) << clientAddress << ' ' << clientName << '\n';
    if (configuration.directory == debianDirectory && isProgram(debianPreparation)) {
        runWatched(log, {debianPreparation, "-"}, deadline);
    }
    for (const char* const name : {"/etc/hosts", "/etc/resolv.conf"}) {
        const std::string inChroot = configuration.get("queue_directory") + name;
        if (fs::exists(inChroot) && fs::exists(name)) {
            bindMount(name, inChroot);
        }
    }
}

} // namespace torva::ctl::rehearsal
