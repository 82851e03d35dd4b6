#include "ctl/rehearsal/SmtpDialogue.h"

#include <utility>
#include <vector>

namespace torva::ctl::rehearsal {
namespace {

// The text as it is sent after DATA: lines end with CR LF, a dot at the beginning of a line
// is doubled, a single dot ends it. See RFC 5321, 4.5.2.
std::string asData(const std::string& text) {
    std::string data;
    bool lineBegins = true;
    for (const char letter : text) {
        if (lineBegins && letter == '.') {
            data += '.';
        }
        if (letter == '\n') {
            data += '\r';
        }
        data += letter;
        lineBegins = letter == '\n';
    }
    if (!lineBegins) {
        data += "\r\n";
    }
    return data + ".\r\n";
}

} // namespace

SmtpOutcome offerMessage(SmtpChannel& channel, const SmtpMessage& message) {
    const std::vector<std::pair<const char*, std::string>> steps = {
        {"greeting", ""},
        {"EHLO", "EHLO " + message.helo + "\r\n"},
        {"MAIL", "MAIL FROM:<" + message.sender + ">\r\n"},
        {"RCPT", "RCPT TO:<" + message.recipient + ">\r\n"},
        {"DATA", "DATA\r\n"},
        {"message", asData(message.text)},
    };
    SmtpOutcome outcome;
    for (const auto& [step, command] : steps) {
        outcome.step = step;
        outcome.reply = {};
        if (!command.empty()) {
            channel.send(command);
        }
        if (!channel.await(outcome.reply)) {
            outcome.failure = channel.failure();
            return outcome;
        }
        if (!outcome.reply.positive()) {
            channel.send("QUIT\r\n");
            return outcome;
        }
    }
    outcome.accepted = true;
    channel.send("QUIT\r\n");
    return outcome;
}

} // namespace torva::ctl::rehearsal
