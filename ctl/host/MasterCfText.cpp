#include "ctl/host/MasterCfText.h"

#include <algorithm>

namespace torva::ctl {

namespace {

const char blankCharacters[] = " \t\r\n";

/// Whether the line is empty or a comment.
bool isNoText(const std::string& line) {
    const std::string::size_type begin = line.find_first_not_of(blankCharacters);
    return begin == std::string::npos || line[begin] == '#';
}

bool isContinuation(const std::string& line) {
    return line[0] == ' ' || line[0] == '\t';
}

/// The end of the field that begins at `begin`: at a blank, or after the closing brace.
std::string::size_type endOfField(const std::string& line, std::string::size_type begin) {
    if (line[begin] != '{') {
        return std::min(line.find_first_of(blankCharacters, begin), line.size());
    }
    int depth = 0;
    for (std::string::size_type at = begin; at < line.size(); ++at) {
        depth += line[at] == '{' ? 1 : line[at] == '}' ? -1 : 0;
        if (depth == 0) {
            return at + 1;
        }
    }
    return line.size();
}

void appendFields(const std::string& line, std::vector<std::string>& fields) {
    std::string::size_type at = line.find_first_not_of(blankCharacters);
    while (at != std::string::npos) {
        const std::string::size_type end = endOfField(line, at);
        fields.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(blankCharacters, end);
    }
}

std::vector<std::string> linesWithEnds(const std::string& text) {
    std::vector<std::string> lines;
    std::string::size_type begin = 0;
    while (begin < text.size()) {
        const std::string::size_type end = std::min(text.find('\n', begin), text.size() - 1);
        lines.push_back(text.substr(begin, end + 1 - begin));
        begin = end + 1;
    }
    return lines;
}

/// "NAME = VALUE" from the text after "-o", which may be in braces.
std::string optionOf(std::string text) {
    if (text.size() > 1 && text.front() == '{') {
        text = text.substr(1, text.size() - 2);
    }
    const std::string::size_type equals = text.find('=');
    if (equals == std::string::npos) {
        return std::string();
    }
    const auto trimmed = [](const std::string& part) {
        const std::string::size_type begin = part.find_first_not_of(blankCharacters);
        return begin == std::string::npos
                   ? std::string()
                   : part.substr(begin, part.find_last_not_of(blankCharacters) + 1 - begin);
    };
    return trimmed(text.substr(0, equals)) + " = " + trimmed(text.substr(equals + 1));
}

} // namespace

std::string MasterCfTextEntry::key() const {
    return name() + "/" + type();
}

std::string MasterCfTextEntry::commandLine() const {
    std::string line = command();
    for (std::size_t at = 8; at < fields.size(); ++at) {
        line += " " + fields[at];
    }
    return line;
}

std::vector<std::string> MasterCfTextEntry::options() const {
    std::vector<std::string> found;
    for (std::size_t at = 8; at < fields.size(); ++at) {
        const std::string& field = fields[at];
        if (field == "-o" && at + 1 < fields.size()) {
            found.push_back(optionOf(fields[++at]));
        } else if (field.compare(0, 2, "-o") == 0 && field.size() > 2) {
            found.push_back(optionOf(field.substr(2)));
        }
    }
    return found;
}

MasterCfText::MasterCfText(const std::string& text) : lines_(linesWithEnds(text)) {
    findEntries();
}

void MasterCfText::findEntries() {
    for (std::size_t at = 0; at < lines_.size(); ++at) {
        const std::string& line = lines_[at];
        if (isNoText(line)) {
            continue;
        }
        if (!isContinuation(line) || entries_.empty()) {
            entries_.emplace_back();
            entries_.back().first = at;
        }
        entries_.back().last = at;
        appendFields(line, entries_.back().fields);
    }
}

std::string MasterCfText::textOf(const MasterCfTextEntry& entry) const {
    std::string text;
    for (std::size_t at = entry.first; at <= entry.last; ++at) {
        text += lines_[at];
    }
    return text;
}

std::string MasterCfText::text() const {
    std::string text;
    for (const std::string& line : lines_) {
        text += line;
    }
    return text;
}

void MasterCfText::commentOut(const MasterCfTextEntry& entry, const std::string& mark) {
    for (std::size_t at = entry.first; at <= entry.last; ++at) {
        if (!isNoText(lines_[at])) {
            lines_[at].insert(0, mark);
        }
    }
}

void MasterCfText::drop(const MasterCfTextEntry& entry) {
    for (std::size_t at = entry.first; at <= entry.last; ++at) {
        lines_[at].clear();
    }
}

} // namespace torva::ctl
