// What Postfix's log says about services that do not work, whatever happens to mail. Pure.
#pragma once

#include "ctl/rehearsal/LogLine.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// A program of Postfix that ended with an error.
struct ServiceFault {
    std::string daemon; ///< for example "smtpd"
    bool atStart;       ///< master(8) delays its next start
    LogLine why;        ///< its own last message, or that of master(8) about it
};

/// Each program that ended with an error, once, in the order of the log. See master(8).
std::vector<ServiceFault> findServiceFaults(const std::vector<LogLine>& log);

/// Whether master(8) has logged that a program cannot start: it does not answer for a
/// minute then.
///
/// \param daemon  for example "smtpd"
bool startIsThrottled(const std::vector<LogLine>& log, const std::string& daemon);

/// The most informative line about a failure: the first "fatal" or "panic", otherwise the
/// first "error", otherwise the first "warning". Warnings of Postfix 3.9 and later that it will
/// drop a parameter or a type of tables are about no failure.
///
/// \param first  index of the first line to examine
/// \return an empty line when there is none
LogLine worstLine(const std::vector<LogLine>& log, std::size_t first = 0);

/// What a failed program printed, in one line: without its warnings, unless it printed
/// nothing else.
std::string reasonsIn(const std::string& said);

/// The lines that a program printed, as lines of a log.
std::vector<LogLine> printedLines(const std::string& said);

} // namespace torva::ctl::rehearsal
