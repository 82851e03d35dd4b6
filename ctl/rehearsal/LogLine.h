// One message for the system log, as a program sends it to /dev/log. MailLog.h collects
// them; MessageTrail.h finds out what happened to a message.
#pragma once

#include <string>
#include <string_view>

namespace torva::ctl::rehearsal {

/// A message of the log in its parts.
struct LogLine {
    std::string program; ///< as it calls itself, for example "postfix/smtpd"; may be empty
    long pid = 0;        ///< 0: unknown
    std::string text;    ///< the message, without a line end

    /// The line as a log file shows it, without time and host: "PROGRAM[PID]: TEXT".
    std::string whole() const;

    /// The program without its part up to the last slash: "smtpd".
    std::string daemon() const;
};

/// Parses a message: "<PRIORITY>Mmm dd hh:mm:ss PROGRAM[PID]: TEXT", in which all but TEXT
/// may be missing. See syslog(3).
///
/// \param datagram  any bytes; control characters, including line ends, become blanks
LogLine parseLogLine(std::string_view datagram);

} // namespace torva::ctl::rehearsal
