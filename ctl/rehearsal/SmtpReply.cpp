#include "ctl/rehearsal/SmtpReply.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace torva::ctl::rehearsal {
namespace {

// RFC 5321 allows 512 bytes; servers send more. Without a limit a stream without line
// ends would fill the memory.
constexpr std::size_t longestLine = 8192;

bool isCode(std::string_view text) {
    return text.size() == 3 && text[0] >= '2' && text[0] <= '5' &&
           std::all_of(text.begin(), text.end(),
                       [](char letter) { return letter >= '0' && letter <= '9'; });
}

std::string printable(std::string_view line) {
    std::string text(line);
    std::replace_if(
        text.begin(), text.end(),
        [](unsigned char letter) { return letter < ' ' || letter == 0x7f; }, ' ');
    return text;
}

} // namespace

void SmtpReplyReader::feed(std::string_view bytes) {
    for (const char byte : bytes) {
        if (byte == '\n') {
            if (!line_.empty() && line_.back() == '\r') {
                line_.pop_back();
            }
            takeLine(std::exchange(line_, {}));
        } else {
            line_ += byte;
            if (line_.size() == longestLine) {
                takeLine(std::exchange(line_, {}));
            }
        }
    }
}

void SmtpReplyReader::takeLine(std::string_view line) {
    const std::string_view mark = line.substr(std::min<std::size_t>(3, line.size()), 1);
    const bool last = mark != "-";
    if (!isCode(line.substr(0, 3)) || (last && !mark.empty() && mark != " ")) {
        pending_ = {};
        replies_.push_back({0, printable(line)});
        return;
    }
    if (pending_.text.empty()) {
        pending_.code = std::stoi(std::string(line.substr(0, 3)));
        pending_.text = std::to_string(pending_.code);
    }
    if (line.size() > 4) {
        pending_.text += " " + printable(line.substr(4));
    }
    if (last) {
        replies_.push_back(std::exchange(pending_, {}));
    }
}

SmtpReply SmtpReplyReader::take() {
    if (replies_.empty()) {
        throw std::logic_error("no reply to take");
    }
    SmtpReply reply = std::move(replies_.front());
    replies_.pop_front();
    return reply;
}

} // namespace torva::ctl::rehearsal
