// A run of a program while the log is read, with an end. The library's own runTool()
// waits as long as the program takes and reads no log, on which Postfix's commands
// would wait in turn.
#pragma once

#include "ctl/rehearsal/MailLog.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// How a program ended and what it said.
struct ToolOutcome {
    bool ended = false; ///< false: the deadline came first, and it was killed
    int status = 0;     ///< raw wait status, see waitpid(2)
    std::string output; ///< standard output and standard error, as they came

    /// Whether it exited in time, with status 0.
    bool succeeded() const;
};

/// Runs a program to its end and that of its output, and takes the log meanwhile.
///
/// \param command  path of the program, or its name in PATH, then its arguments
/// \param input    its standard input
/// \throws SystemError  it could not be started: "execvp" and others of launch();
///         "memfd_create", "write", "read", "pidfd_open"
ToolOutcome runWatched(MailLog& log, const std::vector<std::string>& command,
                       const Deadline& deadline, const std::string& input = {});

} // namespace torva::ctl::rehearsal
