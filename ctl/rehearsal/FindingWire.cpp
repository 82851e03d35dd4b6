#include "ctl/rehearsal/FindingWire.h"

#include <algorithm>
#include <array>
#include <utility>

namespace torva::ctl::rehearsal {
namespace {

const std::string stepKind = "step";
const std::array<std::pair<const char*, Level>, 5> kinds = {{{"ok", Level::ok},
                                                             {"warning", Level::warning},
                                                             {"stop", Level::stop},
                                                             {"done", Level::done},
                                                             {"failed", Level::failed}}};

std::string record(std::string kind, std::string subject, std::string text, std::string advice) {
    std::string bytes;
    for (std::string* part : {&kind, &subject, &text, &advice}) {
        std::replace(part->begin(), part->end(), '\0', ' ');
        bytes += *part + '\0';
    }
    return bytes;
}

std::vector<std::string> splitAtNulls(const std::string& bytes) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end; (end = bytes.find('\0', begin)) != std::string::npos; begin = end + 1) {
        parts.push_back(bytes.substr(begin, end - begin));
    }
    return parts;
}

} // namespace

std::string encode(const Finding& finding) {
    const auto kind = std::find_if(kinds.begin(), kinds.end(), [&finding](const auto& known) {
        return known.second == finding.level;
    });
    return record(kind->first, finding.subject, finding.text, finding.advice);
}

std::string encodeStep(const std::string& step) {
    return record(stepKind, "", step, "");
}

Received decode(const std::string& records) {
    Received received;
    const std::vector<std::string> parts = splitAtNulls(records);
    for (std::size_t i = 0; i + 3 < parts.size(); i += 4) {
        if (parts[i] == stepKind) {
            received.step = parts[i + 2];
            continue;
        }
        const auto kind = std::find_if(kinds.begin(), kinds.end(),
                                       [&](const auto& known) { return known.first == parts[i]; });
        if (kind != kinds.end()) {
            received.findings.push_back({kind->second, parts[i + 1], parts[i + 2], parts[i + 3]});
        }
    }
    return received;
}

} // namespace torva::ctl::rehearsal
