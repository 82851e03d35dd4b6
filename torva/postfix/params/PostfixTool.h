// One run of a Postfix command-line tool to its end, with its output captured.
// What its outcome means is the caller's business: PostfixParameters.h for
// postconf(1), torva/postfix/tables/Postmap.h for postmap(1).
//
// While a tool of Postfix runs here, every child of the process is reaped, the caller's
// own among them: see torva/process/Pipe.h.
#pragma once

#include "torva/process/Pipe.h"

#include <string>
#include <vector>

namespace torva::mail::postfix {

/// How a tool ended and what it said.
struct ToolResult {
    int status = 0;     ///< raw wait status, see waitpid(2)
    std::string output; ///< standard output, unless a consumer took it
    std::string error;  ///< standard error

    /// Whether it exited, with status 0.
    bool succeeded() const;

    /// Whether a signal ended it.
    bool signaled() const;

    /// Its standard error as it is, or "unknown error" when that is empty.
    std::string message() const;
};

/// Runs a tool, without a shell.
///
/// \param command  path of the program, then its arguments
/// \param input    its standard input; empty: end of file at once, so that no tool
///                 ever reads from the terminal of the caller of this process
/// \param output   takes its standard output; empty: it is captured
/// \throws SystemError  the tool could not be started, or did not take its input
///         and exited 0 all the same; std::logic_error: another pipe is running
ToolResult runTool(const std::vector<std::string>& command,
                   const process::InputProducer& input = process::InputProducer(),
                   const process::OutputConsumer& output = process::OutputConsumer());

} // namespace torva::mail::postfix
