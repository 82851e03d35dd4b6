#include "LineOracle.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace torva::mail::postfix::testing {

namespace {

struct Malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || isDigit(c) || (c != '\0' && std::strchr("-_:.", c) != nullptr);
}
bool isWordCharacter(char c) {
    return c > ' ' && c < 0x7F && c != '#';
}

std::vector<std::string> physicalLines(const std::string& text) {
    std::vector<std::string> lines(1);
    for (const char c : text) {
        if (c == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += c;
        }
    }
    return lines;
}

bool isBlankOrComment(const std::string& line) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    return first == std::string::npos || line[first] == '#';
}

/// Reads fields from left to right.
class Cursor {
public:
    explicit Cursor(const std::string& text) : text_(text) {}

    bool atEnd() const { return at_ == text_.size(); }
    void skipBlanks() {
        while (!atEnd() && isBlank(text_[at_])) {
            ++at_;
        }
    }
    bool takeIf(char c) {
        if (atEnd() || text_[at_] != c) {
            return false;
        }
        ++at_;
        return true;
    }
    std::string takeWhile(bool (*accepts)(char), const char* what) {
        std::string taken;
        while (!atEnd() && accepts(text_[at_])) {
            taken += text_[at_++];
        }
        if (taken.empty()) {
            throw Malformed(what);
        }
        return taken;
    }
    int takeType() {
        const char* const types[] = {"inet", "unix", "fifo"};
        for (int type = 0; type < 3; ++type) {
            if (text_.compare(at_, 4, types[type]) == 0) {
                at_ += 4;
                return type;
            }
        }
        throw Malformed("type");
    }
    char takeFlag() {
        for (const char c : {'y', 'n', '-'}) {
            if (takeIf(c)) {
                return c;
            }
        }
        throw Malformed("flag");
    }
    /// \param mark  whether a '?' may follow the digits
    std::string takeNumber(bool mark) {
        if (takeIf('-')) {
            return "-1";
        }
        std::uint64_t value = 0;
        for (const char c : takeWhile(isDigit, "number")) {
            value = value * 10 + static_cast<std::uint64_t>(c - '0');
            if (value > 0xFFFFFFFFU) {
                throw Malformed("number out of range");
            }
        }
        const auto number = static_cast<std::int64_t>(value);
        return std::to_string(number > 0x7FFFFFFF ? number - 0x100000000 : number) +
               (mark && takeIf('?') ? "?" : "");
    }

private:
    const std::string& text_;
    std::size_t at_ = 0;
};

/// \param text  a service without comments, its lines joined by blanks
OracleService readService(const std::string& text) {
    static const char* const types[] = {"inet", "unix", "fifo"};
    Cursor cursor(text);
    OracleService service;
    service.name = cursor.takeWhile(isNameCharacter, "name");
    cursor.skipBlanks();
    service.type = cursor.takeType();
    service.description = service.name + "/" + types[service.type];
    for (int i = 0; i < 3; ++i) {
        cursor.skipBlanks();
        service.description += std::string(" ") + cursor.takeFlag();
    }
    cursor.skipBlanks();
    service.description += " " + cursor.takeNumber(true);
    cursor.skipBlanks();
    service.description += " " + cursor.takeNumber(false) + " ";
    cursor.skipBlanks();
    do {
        service.description += "[" + cursor.takeWhile(isWordCharacter, "word") + "]";
        cursor.skipBlanks();
    } while (!cursor.atEnd());
    return service;
}

/// The end of the service that begins in a line: after the last line that begins
/// with a blank and holds more than a comment, with only empty lines and comments
/// skipped on the way there.
std::size_t endOfService(const std::vector<std::string>& lines, std::size_t begin) {
    std::size_t end = begin + 1;
    for (std::size_t i = end; i < lines.size(); ++i) {
        if (isBlankOrComment(lines[i])) {
            continue;
        }
        if (!isBlank(lines[i].front())) {
            break;
        }
        end = i + 1;
    }
    return end;
}

OracleLine serviceIn(const std::vector<std::string>& lines, std::size_t begin, std::size_t end) {
    if (lines[end - 1].find('#') != std::string::npos) {
        throw Malformed("comment behind the last word");
    }
    OracleLine result;
    std::string plain;
    for (std::size_t i = begin; i < end; ++i) {
        result.text += (i != begin ? "\n" : "") + lines[i];
        plain += lines[i].substr(0, lines[i].find('#')) + " ";
    }
    result.isService = true;
    result.service = readService(plain);
    return result;
}

} // namespace

OracleVerdict judge(const std::string& text) {
    OracleVerdict verdict;
    const std::vector<std::string> lines = physicalLines(text);
    try {
        for (std::size_t i = 0; i < lines.size();) {
            if (isBlankOrComment(lines[i])) {
                verdict.lines.push_back({lines[i++], false, {}});
                continue;
            }
            if (isBlank(lines[i].front())) {
                throw Malformed("continuation of nothing");
            }
            const std::size_t end = endOfService(lines, i);
            verdict.lines.push_back(serviceIn(lines, i, end));
            i = end;
        }
    } catch (const Malformed&) {
        verdict.accepted = false;
    }
    return verdict;
}

} // namespace torva::mail::postfix::testing
