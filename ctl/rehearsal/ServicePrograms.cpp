#include "ctl/rehearsal/ServicePrograms.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace torva::ctl::rehearsal {
namespace {

const std::string panelDirectory = "/usr/lib/torva-9.0/";
const std::string panelDaemon = "torva_saslauthd"; // in Postfix's own directory

bool isPanels(const std::string& path) {
    return path.compare(0, panelDirectory.size(), panelDirectory) == 0 ||
           path.substr(path.rfind('/') + 1) == panelDaemon;
}

// The command of a service, as master(8) finds it.
std::string pathOf(const std::string& command, const std::string& daemonDirectory) {
    return command.compare(0, 1, "/") == 0 ? command : daemonDirectory + "/" + command;
}

void add(std::vector<MissingProgram>& missing, const std::string& path,
         const std::string& service) {
    const auto known =
        std::find_if(missing.begin(), missing.end(),
                     [&path](const MissingProgram& program) { return program.path == path; });
    if (known == missing.end()) {
        missing.push_back({path, {service}, isPanels(path)});
    } else {
        known->services.push_back(service);
    }
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

// Patterns were "NAME.TYPE" once, which Postfix still takes.
bool fits(const std::string& pattern, const ServiceEntry& service) {
    const std::string wanted = lowered(pattern);
    const std::string name = lowered(service.name);
    return wanted == service.type || wanted == name + "/" + service.type ||
           wanted == name + "." + service.type;
}

bool isDisabled(const ServiceEntry& service, const std::string& setting) {
    std::string patterns = setting;
    std::replace(patterns.begin(), patterns.end(), ',', ' ');
    std::istringstream words(patterns);
    for (std::string pattern; words >> pattern;) {
        const bool negated = pattern.front() == '!';
        if (fits(negated ? pattern.substr(1) : pattern, service)) {
            return !negated;
        }
    }
    return false;
}

} // namespace

std::string MissingProgram::name() const {
    return path.substr(path.rfind('/') + 1);
}

std::vector<ServiceEntry> parseServices(const std::string& text) {
    constexpr std::size_t commandColumn = 7;
    std::vector<ServiceEntry> services;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream columns(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(columns), {}};
        if (words.size() <= commandColumn) {
            continue;
        }
        ServiceEntry entry{words[0], words[commandColumn], "", words[1]};
        for (std::size_t i = commandColumn + 1; i < words.size(); ++i) {
            if (entry.program.empty() && words[i].compare(0, 5, "argv=") == 0) {
                entry.program = words[i].substr(5);
            }
        }
        services.push_back(std::move(entry));
    }
    return services;
}

std::vector<MissingProgram>
findMissingPrograms(const std::vector<ServiceEntry>& services, const std::string& daemonDirectory,
                    const std::function<bool(const std::string&)>& canRun) {
    std::vector<MissingProgram> missing;
    for (const ServiceEntry& service : services) {
        const std::string daemon = pathOf(service.command, daemonDirectory);
        if (!canRun(daemon)) {
            add(missing, daemon, service.name);
        }
        if (isPanels(service.program) && !canRun(service.program)) {
            add(missing, service.program, service.name);
        }
    }
    return missing;
}

std::vector<std::string> findDisabled(const std::vector<ServiceEntry>& services,
                                      const std::string& setting) {
    std::vector<std::string> names;
    for (const ServiceEntry& service : services) {
        if (service.type == "inet" && isDisabled(service, setting)) {
            names.push_back(service.name);
        }
    }
    return names;
}

bool isProgram(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

} // namespace torva::ctl::rehearsal
