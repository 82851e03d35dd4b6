// Runs a program with a deadline while the log is read. The library's runTool() waits
// without a deadline and does not read the log, on which Postfix's commands would block.
#pragma once

#include "ctl/rehearsal/MailLog.h"

#include <string>
#include <vector>

namespace torva::ctl::rehearsal {

/// The result and the output of a program.
struct ToolOutcome {
    bool ended = false; ///< false: the deadline came first, and it was killed
    int status = 0;     ///< raw wait status, see waitpid(2)
    std::string output; ///< standard output
    std::string error;  ///< standard error: separate, because Postfix's tools warn in the
                        ///< middle of long answers

    /// Whether it exited in time with status 0.
    bool succeeded() const;

    /// All that it said: standard error, then standard output.
    std::string said() const { return error + output; }
};

/// Runs a program to its end and that of its output, and reads the log meanwhile.
///
/// \param command  path of the program, or its name in PATH, then its arguments
/// \param input    its standard input
/// \throws SystemError  it could not be started: "execvp" and others of launch();
///         "memfd_create", "write", "pipe", "read", "epoll_ctl", "pidfd_open". When waiting for the
///         program fails, it and its children are killed.
ToolOutcome runWatched(MailLog& log, const std::vector<std::string>& command,
                       const Deadline& deadline, const std::string& input = {});

} // namespace torva::ctl::rehearsal
