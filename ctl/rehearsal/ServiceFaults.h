// What Postfix's log tells about services that do not work, whatever mail does. Pure.
#pragma once

#include "ctl/rehearsal/LogLine.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A program of Postfix that ended with an error.
struct ServiceFault {
    std::string daemon; ///< for example "smtpd"
    bool atStart;       ///< master(8) has held back its next start
    LogLine why;        ///< its own last words, or those of master(8) about it
};

/// Each program that ended with an error, once, in the order of the log. See master(8).
std::vector<ServiceFault> findServiceFaults(const std::vector<LogLine>& log);

/// Whether master(8) says that a program cannot start: nobody answers for a minute.
///
/// \param daemon  for example "smtpd"
bool startIsThrottled(const std::vector<LogLine>& log, const std::string& daemon);

/// The line that tells most about a failure: the first "fatal" or "panic", else the
/// first "error", else the first "warning". Warnings of Postfix 3.9 and later that it will
/// drop a parameter or a type of tables are about no failure.
///
/// \param first  index of the line to begin with
/// \return an empty line when there is none
LogLine worstLine(const std::vector<LogLine>& log, std::size_t first = 0);

/// What a failed program printed, in one line: without its warnings, unless it printed
/// nothing else.
std::string reasonsIn(const std::string& said);

/// The lines that a program printed, as lines of a log.
std::vector<LogLine> printedLines(const std::string& said);

} // namespace torva::ctl::rehearsal
