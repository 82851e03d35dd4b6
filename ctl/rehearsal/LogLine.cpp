#include "ctl/rehearsal/LogLine.h"

#include <algorithm>
#include <cctype>

namespace torva::ctl::rehearsal {
namespace {

bool isDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

std::size_t countDigits(std::string_view text) {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) -
                                    text.begin());
}

void skipPriority(std::string_view& rest) {
    if (rest.empty() || rest[0] != '<') {
        return;
    }
    const std::size_t digits = countDigits(rest.substr(1));
    if (digits > 0 && rest.substr(1 + digits, 1) == ">") {
        rest.remove_prefix(digits + 2);
    }
}

// "Jan  2 03:04:05 ", as ctime(3) writes it.
void skipTime(std::string_view& rest) {
    const std::string_view shape = "aaa 00 00:00:00 ";
    if (rest.size() < shape.size()) {
        return;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool fits = shape[i] == 'a'   ? std::isalpha(static_cast<unsigned char>(rest[i])) != 0
                          : shape[i] == '0' ? isDigit(rest[i]) || (i == 4 && rest[i] == ' ')
                                            : rest[i] == shape[i];
        if (!fits) {
            return;
        }
    }
    rest.remove_prefix(shape.size());
}

// The number of "PROGRAM[PID]", whose name may have blanks, as "syslog_name" may. False: it
// does not end with one.
bool takePid(std::string_view& program, long& pid) {
    const std::size_t bracket = program.rfind('[');
    if (bracket == std::string_view::npos || bracket == 0 || program.back() != ']') {
        return false;
    }
    const std::string_view number = program.substr(bracket + 1, program.size() - bracket - 2);
    // A process id has fewer digits; a longer number might not fit.
    if (number.empty() || number.size() > 10 || countDigits(number) != number.size()) {
        return false;
    }
    pid = std::stol(std::string(number));
    program = program.substr(0, bracket);
    return true;
}

// "PROGRAM[PID]: " or "PROGRAM: ".
void takeProgram(std::string_view& rest, LogLine& line) {
    const std::size_t end = rest.find(": ");
    if (end == std::string_view::npos || end == 0 || rest[0] == '<') {
        return;
    }
    std::string_view program = rest.substr(0, end);
    if (!takePid(program, line.pid) && program.find_first_of(" [:") != std::string_view::npos) {
        return;
    }
    line.program = program;
    rest.remove_prefix(end + 2);
}

} // namespace

std::string LogLine::whole() const {
    std::string head = program;
    if (pid != 0) {
        head += "[" + std::to_string(pid) + "]";
    }
    return head.empty() ? text : head + ": " + text;
}

std::string LogLine::daemon() const {
    return program.substr(program.rfind('/') + 1);
}

LogLine parseLogLine(std::string_view datagram) {
    LogLine line;
    skipPriority(datagram);
    skipTime(datagram);
    takeProgram(datagram, line);
    line.text = datagram;
    std::replace_if(
        line.text.begin(), line.text.end(),
        [](unsigned char letter) { return letter < ' ' || letter == 0x7f; }, ' ');
    line.text.erase(line.text.find_last_not_of(' ') + 1);
    return line;
}

} // namespace torva::ctl::rehearsal
