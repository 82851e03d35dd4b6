#include "ctl/host/Shelter.h"

#include "ctl/host/PanelRun.h"
#include "torva/postfix/mastercf/MasterCfDiagnosis.h"

#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <cctype>
#include <sstream>
#include <stdexcept>

namespace torva::ctl {

using mail::postfix::diagnoseMasterCf;

namespace {

constexpr std::size_t manyServices = 250;

bool startsWith(const std::string& line, const std::string& beginning) {
    return line.compare(0, beginning.size(), beginning) == 0;
}

/// A comment with which no line of the text begins.
std::string unusedMark(const MasterCfText& text) {
    const auto& lines = text.lines();
    std::string mark = "#sheltered by torva-postfixctl: ";
    while (std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return startsWith(line, mark); })) {
        mark.insert(1, "#");
    }
    return mark;
}

std::string withLineFeed(std::string line) {
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    return line;
}

/// Removes the mark from every line that has it.
std::vector<std::string> takeMarkOff(MasterCfText& text, const std::string& mark) {
    std::vector<std::string> found;
    for (std::string& line : text.lines()) {
        if (startsWith(line, mark)) {
            line.erase(0, mark.size());
            found.push_back(line);
        }
    }
    return found;
}

bool sameLines(const std::vector<std::string>& left, const std::vector<std::string>& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const std::string& one, const std::string& other) {
                          // The last line of the file may be followed by another now.
                          return withLineFeed(one) == withLineFeed(other);
                      });
}

bool holdsLine(const std::vector<std::string>& keys, const std::string& key) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

std::vector<std::string> keysOf(const MasterCfText& text) {
    std::vector<std::string> keys;
    for (const MasterCfTextEntry& entry : text.entries()) {
        keys.push_back(entry.key());
    }
    return keys;
}

/// Removes services that the run has added although a sheltered one has the same key.
void dropAdded(MasterCfText& text, const Sheltered& sheltered) {
    const std::vector<std::string> before = keysOf(MasterCfText(sheltered.text));
    for (const MasterCfTextEntry& entry : text.entries()) {
        const PanelService* service = panelServiceOf(entry.key());
        if (service != nullptr && !service->replaces && !holdsLine(before, entry.key()) &&
            holdsLine(sheltered.keys, entry.key())) {
            text.drop(entry);
        }
    }
}

/// Makes services comments again that the run has replaced by its own.
void commentReplaced(MasterCfText& text, const std::vector<std::string>& shelteredKeys,
                     std::vector<std::string>& replaced) {
    for (const MasterCfTextEntry& entry : text.entries()) {
        const PanelService* service = panelServiceOf(entry.key());
        if (service != nullptr && service->replaces && holdsLine(shelteredKeys, entry.key()) &&
            diagnoseMasterCf(text.textOf(entry))) {
            replaced.push_back(entry.key());
            text.commentOut(entry, "#");
        }
    }
}

/// The names of the parameters that are set in a text of main.cf.
std::vector<std::string> settingsIn(const std::string& mainCf) {
    std::vector<std::string> names;
    std::istringstream lines(mainCf);
    for (std::string line; std::getline(lines, line);) {
        const bool isContinued = !line.empty() && std::isspace(static_cast<unsigned char>(line[0]));
        const std::string::size_type equals = line.find('=');
        if (!isContinued && equals != std::string::npos) {
            names.push_back(boost::algorithm::trim_right_copy(line.substr(0, equals)));
        }
    }
    return names;
}

/// Whether a text uses a parameter: as "$NAME", "${NAME" or "$(NAME".
bool uses(const std::string& text, const std::string& name) {
    for (const char* beginning : {"$", "${", "$("}) {
        if (text.find(beginning + name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

Sheltered shelter(const std::string& masterCf, const ServiceFilter& others) {
    MasterCfText text(masterCf);
    Sheltered sheltered;
    sheltered.mark = unusedMark(text);
    for (const MasterCfTextEntry& entry : text.entries()) {
        const std::string own = text.textOf(entry);
        const bool isRefused = diagnoseMasterCf(own).has_value();
        if (isRefused) {
            sheltered.keys.push_back(entry.key());
        }
        if (isRefused || (others && others(entry, own))) {
            text.commentOut(entry, sheltered.mark);
        }
    }
    sheltered.text = text.text();
    sheltered.lines = takeMarkOff(text, sheltered.mark);
    if (const auto diagnosis = diagnoseMasterCf(sheltered.text)) {
        sheltered.refusal = diagnosis->text();
    }
    return sheltered;
}

ServiceFilter uninvolvedServices(const std::string& masterCf, const std::string& mainCf) {
    if (MasterCfText(masterCf).entries().size() <= manyServices) {
        return nullptr;
    }
    return
        [settings = settingsIn(mainCf)](const MasterCfTextEntry& entry, const std::string& text) {
            return panelServiceOf(entry.key()) == nullptr &&
                   std::none_of(settings.begin(), settings.end(), [&](const std::string& setting) {
                       return startsWith(setting, entry.name() + "_") || uses(text, setting);
                   });
        };
}

std::string withoutServices(const std::string& masterCf, const ServiceFilter& which) {
    MasterCfText text(masterCf);
    for (const MasterCfTextEntry& entry : text.entries()) {
        if (which(entry, text.textOf(entry))) {
            text.commentOut(entry, "#");
        }
    }
    return text.text();
}

std::string unshelter(const std::string& masterCf, const Sheltered& sheltered,
                      std::vector<std::string>& replaced) {
    MasterCfText text(masterCf);
    dropAdded(text, sheltered);
    if (!sameLines(takeMarkOff(text, sheltered.mark), sheltered.lines)) {
        throw std::runtime_error("a sheltered line is gone");
    }
    MasterCfText whole(text.text());
    commentReplaced(whole, sheltered.keys, replaced);
    return whole.text();
}

} // namespace torva::ctl
