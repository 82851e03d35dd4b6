#include "ctl/rehearsal/ServiceFaults.h"

#include <algorithm>
#include <sstream>
#include <string_view>

namespace torva::ctl::rehearsal {
namespace {

// What Postfix says with every call and every table, whether mail works or not.
bool isAboutLaterPostfix(const LogLine& line) {
    const auto says = [&line](const char* words) {
        return line.text.find(words) != std::string::npos;
    };
    return (says("support for parameter") && says("will be removed")) ||
           says(" support is deprecated") || says("DEPRECATION_README") ||
           says("NON_BERKELEYDB_README.gz");
}

// Higher is worse; 0: nothing bad. The words are those of msg(3) of Postfix.
int severityOf(const LogLine& line) {
    const std::vector<std::pair<std::string_view, int>> words = {
        {"panic: ", 3}, {"fatal: ", 3}, {"error: ", 2}, {"warning: ", 1}};
    for (const auto& [word, severity] : words) {
        if (line.text.compare(0, word.size(), word) == 0) {
            return severity == 1 && isAboutLaterPostfix(line) ? 0 : severity;
        }
    }
    return 0;
}

std::string lastName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// "warning: process PATH pid NUMBER exit status N" or "... killed by signal N".
bool parseEnd(const LogLine& line, std::string& path, long& pid) {
    const std::string head = "warning: process ";
    const std::size_t mark = line.text.find(" pid ");
    const bool ended = line.text.find(" exit status ") != std::string::npos ||
                       line.text.find(" killed by signal ") != std::string::npos;
    if (line.daemon() != "master" || line.text.compare(0, head.size(), head) != 0 ||
        mark == std::string::npos || !ended) {
        return false;
    }
    path = line.text.substr(head.size(), mark - head.size());
    const std::string number = line.text.substr(mark + 5, 10);
    const std::size_t digits = std::min(number.find_first_not_of("0123456789"), number.size());
    pid = digits == 0 ? 0 : std::stol(number.substr(0, digits));
    return true;
}

// The worst message of a process, otherwise that of master(8) about it.
LogLine lastWords(const std::vector<LogLine>& log, long pid, const LogLine& end) {
    std::vector<LogLine> own;
    std::copy_if(log.begin(), log.end(), std::back_inserter(own),
                 [pid](const LogLine& line) { return line.pid == pid; });
    const LogLine worst = worstLine(own);
    return worst.text.empty() ? end : worst;
}

} // namespace

std::vector<ServiceFault> findServiceFaults(const std::vector<LogLine>& log) {
    std::vector<ServiceFault> faults;
    for (const LogLine& line : log) {
        std::string path;
        long pid = 0;
        if (!parseEnd(line, path, pid)) {
            continue;
        }
        const std::string daemon = lastName(path);
        const bool known =
            std::any_of(faults.begin(), faults.end(),
                        [&daemon](const ServiceFault& fault) { return fault.daemon == daemon; });
        if (!known) {
            faults.push_back({daemon, startIsThrottled(log, daemon), lastWords(log, pid, line)});
        }
    }
    return faults;
}

bool startIsThrottled(const std::vector<LogLine>& log, const std::string& daemon) {
    return std::any_of(log.begin(), log.end(), [&daemon](const LogLine& line) {
        const std::size_t mark = line.text.find(": bad command startup -- throttling");
        return line.daemon() == "master" && mark != std::string::npos &&
               lastName(line.text.substr(0, mark)) == daemon;
    });
}

LogLine worstLine(const std::vector<LogLine>& log, std::size_t first) {
    LogLine worst;
    int highest = 0;
    for (std::size_t i = first; i < log.size(); ++i) {
        if (severityOf(log[i]) > highest) {
            highest = severityOf(log[i]);
            worst = log[i];
        }
    }
    return worst;
}

std::vector<LogLine> printedLines(const std::string& said) {
    std::vector<LogLine> lines;
    std::istringstream stream(said);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(parseLogLine(line));
    }
    return lines;
}

std::string reasonsIn(const std::string& said) {
    std::string all;
    std::string reasons;
    for (const LogLine& line : printedLines(said)) {
        const std::string words = line.whole();
        all += (all.empty() ? "" : " ") + words;
        if (line.text.compare(0, 9, "warning: ") != 0) {
            reasons += (reasons.empty() ? "" : " ") + words;
        }
    }
    return reasons.empty() ? all : reasons;
}

} // namespace torva::ctl::rehearsal
