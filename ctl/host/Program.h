// Runs Postfix's tools and the few other programs that the companion needs.
#pragma once

#include "torva/postfix/params/PostfixTool.h"

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl {

using mail::postfix::ToolResult;

/// What to run.
struct Program {
    std::vector<std::string> words; ///< program, looked up in PATH, and its arguments
    std::string input;              ///< its standard input
    int output = -1;                ///< descriptor for its standard output; -1: captured
    int error = -1;                 ///< descriptor for its standard error; -1: captured
    std::string purpose;            ///< what announceWaits() calls it; empty: its words
};

/// Runs a program to its end, without a shell.
///
/// \return its status and captured output; a program that could not be started has exit
///         status 127 and the reason as its standard error
ToolResult run(const Program& program);
ToolResult run(std::vector<std::string> words);

/// The message of a failed program, in one line: its standard error, otherwise its output,
/// without the warnings of Postfix's tools if it said anything else (see ToolWords.h);
/// otherwise how it ended.
std::string wordsOf(const ToolResult& result);

/// The exit status, or 128 plus the number of the signal that ended it, as in a shell.
int exitStatus(const ToolResult& result);

/// From now on, run() ends with a call of this function, which may throw.
void afterEachProgram(std::function<void()> function);

/// From now on, a program that takes longer than a second is named on standard error, once,
/// unless it shows its own output there.
void announceWaits();

/// Names something else on standard error that a verb has begun to wait for.
void announceWait(const std::string& purpose);

} // namespace torva::ctl
