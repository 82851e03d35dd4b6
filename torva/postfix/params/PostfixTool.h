// Runs a Postfix command-line tool to its end and captures its output. What the result
// means is up to the caller: PostfixParameters.h for postconf(1),
// torva/postfix/tables/Postmap.h for postmap(1).
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
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

    /// Whether it exited with status 0.
    bool succeeded() const;

    /// Whether a signal ended it.
    bool signaled() const;

    /// Its standard error, unchanged; "unknown error" when that is empty.
    std::string message() const;
};

/// Runs a tool, without a shell.
///
/// \param command  path of the program, then its arguments
/// \param input    produces its standard input; empty: end of file at once, so that no
///                 tool reads from the terminal that this process was started on
/// \param output   takes its standard output; empty: the result has it
/// \throws SystemError  the tool could not be started, or exited 0 without having read
///         its input
/// \throws std::logic_error  another pipe is running
ToolResult runTool(const std::vector<std::string>& command,
                   const process::InputProducer& input = process::InputProducer(),
                   const process::OutputConsumer& output = process::OutputConsumer());

} // namespace torva::mail::postfix
