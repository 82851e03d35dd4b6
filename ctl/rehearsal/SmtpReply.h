// The server's side of an SMTP dialogue as the client reads it: bytes in, replies out.
// Pure; the connection is SmtpConnection.h. See RFC 5321, 4.2.
#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace torva::ctl::rehearsal {

/// One reply, its lines joined.
struct SmtpReply {
    int code = 0;     ///< 0: the server sent something that is no reply
    std::string text; ///< all of it, "250 2.1.0 Ok"; lines are joined by a blank

    bool positive() const { return code >= 200 && code < 400; }
    bool refused() const { return code >= 400; }
};

/// Puts replies together from bytes as they come.
class SmtpReplyReader {
public:
    /// Takes the next bytes, cut anywhere. A line that is no reply line becomes a reply
    /// of code 0 with its text, and so does a line longer than any server sends.
    void feed(std::string_view bytes);

    /// Whether a whole reply is there.
    bool hasReply() const { return !replies_.empty(); }

    /// The oldest whole reply, which is taken out.
    /// \throws std::logic_error  there is none
    SmtpReply take();

private:
    void takeLine(std::string_view line);

    std::string line_;  // bytes since the last line end
    SmtpReply pending_; // lines of a reply whose last one is still to come
    std::deque<SmtpReply> replies_;
};

} // namespace torva::ctl::rehearsal
