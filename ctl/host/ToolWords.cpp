#include "ctl/host/ToolWords.h"

#include "ctl/host/PanelRun.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace torva::ctl {

namespace {

const char supportFor[] = "support for parameter \"";
const char willBeRemoved[] = "\" will be removed";

/// Where the text of a warning begins; npos: the line is not a warning.
std::string::size_type warningText(const std::string& line) {
    // The name of a program has no blank, so a warning that a message quotes does not count.
    const std::string::size_type colon = line.find(": ");
    const std::string mark = ": warning: ";
    if (colon == std::string::npos || line.find(' ') != colon + 1 ||
        line.compare(colon, mark.size(), mark) != 0) {
        return std::string::npos;
    }
    return colon + mark.size();
}

bool isPanelParameter(const std::string& name) {
    const auto& names = panelParameters();
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// "updating FILE => COPY", on standard output.
bool isCopyForChroot(const std::string& line) {
    return boost::algorithm::starts_with(line, "updating /") &&
           line.find(" => ") != std::string::npos;
}

/// The line that Postfix 3.11 writes below the parameters that it drops.
bool isReferenceToReadme(const std::string& line) {
    return isWarning(line) && line.find("DEPRECATION_README") != std::string::npos;
}

} // namespace

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

bool isWarning(const std::string& line) {
    return warningText(line) != std::string::npos;
}

std::string reasonIn(const std::string& said) {
    const std::vector<std::string> all = linesOf(said);
    std::vector<std::string> reasons;
    std::remove_copy_if(all.begin(), all.end(), std::back_inserter(reasons), &isWarning);
    return boost::algorithm::join(reasons.empty() ? all : reasons, "; ");
}

std::vector<DroppedParameter> droppedParameters(const std::string& said) {
    std::vector<DroppedParameter> dropped;
    for (const std::string& line : linesOf(said)) {
        const std::string::size_type begin = line.find(supportFor);
        const std::string::size_type end = line.find(willBeRemoved);
        if (!isWarning(line) || begin == std::string::npos || end == std::string::npos) {
            continue;
        }
        const std::string::size_type name = begin + sizeof(supportFor) - 1;
        if (end <= name) {
            continue;
        }
        const DroppedParameter one{line.substr(name, end - name), line.substr(begin)};
        const bool isKnown =
            std::any_of(dropped.begin(), dropped.end(),
                        [&](const DroppedParameter& other) { return other.name == one.name; });
        if (!isKnown) {
            dropped.push_back(one);
        }
    }
    return dropped;
}

std::string droppedTableType(const std::string& said) {
    for (const std::string& line : linesOf(said)) {
        const std::string::size_type mark = line.find(" support is deprecated");
        if (isWarning(line) && mark != std::string::npos) {
            // The path of the table comes before it.
            const std::string::size_type path = line.rfind(": ", mark);
            return boost::algorithm::replace_all_copy(line.substr(path + 2), ".  ", ". ");
        }
    }
    return std::string();
}

std::vector<std::string> withoutNews(const std::vector<std::string>& lines) {
    std::vector<std::string> kept;
    bool isAboutOthers = false; // a dropped parameter that no run sets
    for (const std::string& line : lines) {
        const auto dropped = droppedParameters(line);
        const bool isOfRun = !dropped.empty() && isPanelParameter(dropped.front().name);
        isAboutOthers = isAboutOthers || (!dropped.empty() && !isOfRun);
        if (!isOfRun && !isCopyForChroot(line)) {
            kept.push_back(line);
        }
    }
    if (!isAboutOthers) {
        kept.erase(std::remove_if(kept.begin(), kept.end(), &isReferenceToReadme), kept.end());
    }
    return kept;
}

} // namespace torva::ctl
