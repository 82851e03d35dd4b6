#include "torva/postfix/params/MessageScan.h"

namespace torva::mail::postfix {

namespace {

/// Where the severity word of a line starts; npos when the line has none.
std::string::size_type severityStart(const std::string& line) {
    const std::string::size_type colon = line.find(':');
    if (colon == std::string::npos) {
        return std::string::npos;
    }
    const std::string::size_type word = line.find_first_not_of(' ', colon + 1);
    if (word == std::string::npos || line.find(':', word) == std::string::npos) {
        return std::string::npos;
    }
    return word;
}

bool lineReportsFailure(const std::string& line, Severity severity) {
    const std::string::size_type word = severityStart(line);
    if (word == std::string::npos) {
        return false;
    }
    for (const char* failure : {"panic:", "fatal:", "error:"}) {
        if (line.compare(word, 6, failure) == 0) {
            return true;
        }
    }
    return severity == Severity::strict && line.compare(word, 8, "warning:") != 0;
}

} // namespace

bool reportsFailure(const std::string& messages, Severity severity) {
    std::string::size_type start = 0;
    while (start < messages.size()) {
        std::string::size_type end = messages.find('\n', start);
        if (end == std::string::npos) {
            end = messages.size();
        }
        if (lineReportsFailure(messages.substr(start, end - start), severity)) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

} // namespace torva::mail::postfix
