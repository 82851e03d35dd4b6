// Parses the replies of an SMTP server: bytes in, replies out. Pure; the connection is
// SmtpConnection.h. See RFC 5321, 4.2.
#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace torva::ctl::rehearsal {

/// One reply, its lines joined.
struct SmtpReply {
    int code = 0;     ///< 0: the server sent something that is not a reply
    std::string text; ///< the whole reply, "250 2.1.0 Ok"; lines are joined by a blank

    bool positive() const { return code >= 200 && code < 400; }
    bool refused() const { return code >= 400; }
};

/// Assembles replies from bytes as they arrive.
class SmtpReplyReader {
public:
    /// Takes the next bytes, cut anywhere. A malformed line becomes a reply with code 0 and
    /// its text, and so does a line longer than any server sends.
    void feed(std::string_view bytes);

    /// Whether there is a complete reply.
    bool hasReply() const { return !replies_.empty(); }

    /// Removes and returns the oldest complete reply.
    /// \throws std::logic_error  there is none
    SmtpReply take();

private:
    void takeLine(std::string_view line);

    std::string line_;  // bytes since the last line end
    SmtpReply pending_; // lines of a reply that is not complete
    std::deque<SmtpReply> replies_;
};

} // namespace torva::ctl::rehearsal
