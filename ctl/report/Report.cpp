#include "ctl/report/Report.h"

#include "ctl/report/InstanceAdvice.h"
#include "ctl/report/JsonText.h"
#include "ctl/report/Printable.h"
#include "ctl/report/Wrap.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

constexpr std::size_t defaultWidth = 80;
constexpr std::size_t leastWidth = 40;
constexpr std::size_t textColumn = 21;

struct LevelStyle {
    const char* name;
    const char* colour; ///< number of an escape sequence, see console_codes(4)
};

LevelStyle styleOf(Level level) {
    switch (level) {
    case Level::ok:
        return {"ok", "32"};
    case Level::warning:
        return {"warning", "33"};
    case Level::stop:
        return {"stop", "31"};
    case Level::done:
        return {"done", "32"};
    case Level::failed:
        break;
    }
    return {"failed", "31"};
}

/// \return 0, or the errno that ended it
int print(int fd, const std::string& text) {
    const char* at = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, at, left);
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        if (written > 0) {
            at += written;
            left -= static_cast<std::size_t>(written);
        }
    }
    return 0;
}

std::size_t widthOfOutput() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return defaultWidth;
    }
    return std::max<std::size_t>(size.ws_col, leastWidth);
}

bool wantsColour() {
    const char* refused = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0');
}

/// Joins the lines of a tool's message.
std::string inOneLine(const std::string& text) {
    std::string line;
    for (const char character : text.substr(0, text.find_last_not_of('\n') + 1)) {
        if (character == '\n') {
            line += "; ";
        } else {
            line += character;
        }
    }
    return line;
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text + ' ';
}

} // namespace

Report::Report(std::string verb, bool json, std::string instance)
    : verb_(std::move(verb)),
      json_(json),
      instance_(std::move(instance)),
      coloured_(wantsColour()),
      width_(widthOfOutput()) {}

void Report::finding(const Finding& finding) {
    stopped_ = stopped_ || finding.level == Level::stop;
    const LevelStyle style = styleOf(finding.level);
    const std::string text = inOneLine(finding.text);
    std::vector<Field> fields{{"level", style.name}, {"subject", finding.subject}, {"text", text}};
    const std::string advice = adviceOf(finding);
    if (!advice.empty()) {
        fields.emplace_back("action", advice);
    }
    std::string line = padded(style.name, 8);
    if (coloured_) {
        line = std::string("\x1b[") + style.colour + "m" + padded(style.name, 7) + "\x1b[m ";
    }
    line +=
        padded(oneLine(finding.subject), 11) + wrapped(oneLine(text), width_, textColumn) + '\n';
    if (!advice.empty()) {
        line += std::string(textColumn, ' ') + "-> " +
                wrapped(oneLine(advice), width_, textColumn + 3) + '\n';
    }
    emit(fields, line);
}

std::string Report::adviceOf(const Finding& finding) const {
    return adviceFor(instance_, finding.advice);
}

void Report::findings(const std::vector<Finding>& findings) {
    for (const Finding& one : findings) {
        finding(one);
    }
}

void Report::heading(const std::string& text) {
    if (!json_) {
        put("\n=== " + text + "\n");
    }
}

void Report::object(const std::vector<Field>& fields, const std::string& line) {
    emit(fields, printable(line));
}

/// \param line  printable
void Report::emit(const std::vector<Field>& fields, const std::string& line) {
    if (!json_) {
        put(line);
        return;
    }
    nlohmann::ordered_json object;
    object["verb"] = verb_;
    for (const Field& field : fields) {
        if (field.isNumber) {
            object[field.name] = field.number;
        } else {
            object[field.name] = textOfBytes(field.text);
        }
    }
    put(object.dump(-1, ' ', true) + '\n');
}

void Report::put(const std::string& text) {
    const int error = print(STDOUT_FILENO, text);
    if (error != 0 && error != EPIPE) { // a reader who is gone has read enough
        lostBy_ = error;
    }
}

void complain(const std::string& text) {
    print(STDERR_FILENO, "torva-postfixctl: " + printable(text) + '\n');
}

} // namespace torva::ctl
