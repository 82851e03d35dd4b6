#include "ctl/rehearsal/DialogueLines.h"

#include "ctl/rehearsal/RelayProof.h"
#include "ctl/rehearsal/ServiceFaults.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace torva::ctl::rehearsal {
namespace {

using Process = std::pair<std::string, long>;

const char* const connectMark = "connect from ";
const char* const disconnectMark = "disconnect from ";

// The part of the log that was written while the message was offered.
std::vector<LogLine> windowOf(const Attempt& attempt, const std::vector<LogLine>& log) {
    const std::size_t end = std::min(attempt.logEnd, log.size());
    const std::size_t begin = std::min(attempt.logBegin, end);
    using Offset = std::vector<LogLine>::difference_type;
    return {log.begin() + static_cast<Offset>(begin), log.begin() + static_cast<Offset>(end)};
}

Process processOf(const LogLine& line) {
    return {line.program, line.pid};
}

bool begins(const LogLine& line, const std::string& start) {
    return line.text.compare(0, start.size(), start) == 0;
}

bool isConnection(const LogLine& line, const Attempt& attempt) {
    return begins(line, connectMark) && !attempt.client.empty() &&
           line.text.find("[" + attempt.client + "]") != std::string::npos;
}

// A field of a line, such as "from=<ADDRESS>", compared with ours.
enum class Field { absent, ours, anothers };

Field compareField(const LogLine& line, const std::string& mark, const std::string& value) {
    const std::size_t begin = line.text.find(mark);
    if (begin == std::string::npos) {
        return Field::absent;
    }
    const std::string ours = value + ">";
    return line.text.compare(begin + mark.size(), ours.size(), ours) == 0 ? Field::ours
                                                                          : Field::anothers;
}

// Whether a line is about this message: by its sender, which is in hardly any other, by the
// name that the client has given, or by the words of the reply.
bool isAbout(const LogLine& line, const Attempt& attempt) {
    const Field sender = compareField(line, "from=<", attempt.message.sender);
    const Field recipient = compareField(line, " to=<", attempt.message.recipient);
    const Field helo = compareField(line, " helo=<", attempt.message.helo);
    if (sender == Field::anothers || recipient == Field::anothers ||
        (sender == Field::absent && helo == Field::anothers)) {
        return false;
    }
    const std::string& reply = attempt.outcome.reply.text;
    return sender == Field::ours || helo == Field::ours ||
           (!reply.empty() && line.text.find(reply) != std::string::npos);
}

bool isRefusal(const LogLine& line) {
    return line.text.find("reject: ") != std::string::npos;
}

// The servers that have logged about this message. With a proxy filter there are two.
std::set<Process> serversOf(const std::vector<LogLine>& window, const Attempt& attempt) {
    std::set<Process> known;
    std::set<Process> possible;
    for (const LogLine& line : window) {
        if (line.daemon() == "smtpd" && isAbout(line, attempt)) {
            known.insert(processOf(line));
        } else if (isConnection(line, attempt)) {
            possible.insert(processOf(line));
        }
    }
    // Before the greeting of ours, the only connection from this host may be a filter's.
    const bool onlyOurs = attempt.client != "127.0.0.1" || attempt.outcome.step != "greeting";
    return known.empty() && onlyOurs && possible.size() == 1 ? possible : known;
}

// The lines of a server's last connection about this message.
std::vector<LogLine> linesOfServer(const std::vector<LogLine>& window, const Process& server,
                                   const Attempt& attempt) {
    std::vector<LogLine> lines;
    bool ours = false;
    for (const LogLine& line : window) {
        if (processOf(line) != server) {
            continue;
        }
        if (begins(line, connectMark) && !ours) {
            lines.clear();
        }
        lines.push_back(line);
        ours = ours || isAbout(line, attempt);
        if (begins(line, disconnectMark) && ours) {
            break;
        }
    }
    return lines;
}

// The queue ids that servers gave: "ID: client=HOST".
std::set<std::string> queueIdsIn(const std::vector<LogLine>& lines) {
    std::set<std::string> ids;
    for (const LogLine& line : lines) {
        const std::size_t mark = line.text.find(": client=");
        if (mark != std::string::npos && line.text.compare(0, mark, "NOQUEUE") != 0) {
            ids.insert(line.text.substr(0, mark));
        }
    }
    return ids;
}

// The worst that the services say that look something up for every server.
LogLine worstOfLookups(const std::vector<LogLine>& window) {
    std::vector<LogLine> lines;
    std::copy_if(window.begin(), window.end(), std::back_inserter(lines), [](const LogLine& line) {
        return line.daemon() == "trivial-rewrite" || line.daemon() == "proxymap";
    });
    return worstLine(lines);
}

} // namespace

std::vector<LogLine> linesOfDialogue(const std::vector<LogLine>& log, const Attempt& attempt) {
    const std::vector<LogLine> window = windowOf(attempt, log);
    std::vector<LogLine> lines;
    if (attempt.client.empty()) {
        std::copy_if(window.begin(), window.end(), std::back_inserter(lines),
                     [](const LogLine& line) {
                         return line.daemon() == "sendmail" || line.daemon() == "postdrop";
                     });
        return lines;
    }
    for (const Process& server : serversOf(window, attempt)) {
        const std::vector<LogLine> own = linesOfServer(window, server, attempt);
        lines.insert(lines.end(), own.begin(), own.end());
    }
    const std::set<std::string> ids = queueIdsIn(lines);
    std::copy_if(window.begin(), window.end(), std::back_inserter(lines),
                 [&ids](const LogLine& line) {
                     return line.daemon() != "smtpd" &&
                            ids.count(line.text.substr(0, line.text.find(": "))) != 0;
                 });
    return lines;
}

LogLine lineOfRefusal(const std::vector<LogLine>& log, const Attempt& attempt) {
    const std::vector<LogLine> window = windowOf(attempt, log);
    LogLine cause = worstLine(linesOfDialogue(log, attempt));
    const SmtpReply& reply = attempt.outcome.reply;
    if (cause.text.empty() && reply.text.find("lookup failure") != std::string::npos) {
        cause = worstOfLookups(window);
    }
    if (isServerFault(reply) && !cause.text.empty()) {
        return cause;
    }
    const auto refusal =
        std::find_if(window.begin(), window.end(), [&attempt](const LogLine& line) {
            return isRefusal(line) && isAbout(line, attempt);
        });
    return refusal == window.end() ? cause : *refusal;
}

} // namespace torva::ctl::rehearsal
