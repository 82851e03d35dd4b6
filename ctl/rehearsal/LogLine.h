// One message for the system log, as a program hands it to /dev/log. Who collects them
// is MailLog.h; what they tell about a message, MessageTrail.h.
#pragma once

#include <string>
#include <string_view>

namespace torva::ctl::rehearsal {

/// A message of the log in its parts.
struct LogLine {
    std::string program; ///< as it calls itself, for example "postfix/smtpd"; may be empty
    long pid = 0;        ///< 0: not told
    std::string text;    ///< what is said, without a line end

    /// The line as a log file shows it, without time and host: "PROGRAM[PID]: TEXT".
    std::string whole() const;

    /// The program without what stands before its last slash: "smtpd".
    std::string daemon() const;
};

/// Takes a message apart: "<PRIORITY>Mmm dd hh:mm:ss PROGRAM[PID]: TEXT", in which
/// all but TEXT may be missing. See syslog(3).
///
/// \param datagram  any bytes; control characters, a line end among them, become blanks
LogLine parseLogLine(std::string_view datagram);

} // namespace torva::ctl::rehearsal
