// Running Postfix's tools and the few others that the companion calls.
#pragma once

#include "torva/postfix/params/PostfixTool.h"

#include <string>
#include <vector>

namespace torva::ctl {

using mail::postfix::ToolResult;

/// What to run.
struct Program {
    std::vector<std::string> words; ///< program, looked up in PATH, and its arguments
    std::string input;              ///< its standard input
    int output = -1;                ///< where its standard output goes; -1: captured
    int error = -1;                 ///< where its standard error goes; -1: captured
};

/// Runs a program to its end, without a shell.
///
/// \return how it ended, and what was captured of its output; a program that could not
///         be started is one that exited with status 127 and said why
ToolResult run(const Program& program);
ToolResult run(std::vector<std::string> words);

/// What a failed program said, in one line: its standard error, else its output, without
/// the warnings of Postfix's tools where it said anything else (see ToolWords.h); else how
/// it ended.
std::string wordsOf(const ToolResult& result);

/// The exit status, or 128 and the number of the signal that ended it, as a shell has it.
int exitStatus(const ToolResult& result);

/// From now on, a program that takes longer than a second is told about on standard
/// error, once.
void announceWaits();

} // namespace torva::ctl
