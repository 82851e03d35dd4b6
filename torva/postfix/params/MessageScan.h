// Tells from the standard error of a Postfix tool whether it failed, where the exit
// status alone does not. Pure text work.
#pragma once

#include <string>

namespace torva::mail::postfix {

/// Which messages count as failures.
enum class Severity {
    lenient, ///< only "panic:", "fatal:" and "error:"
    strict   ///< everything but "warning:"
};

/// Whether any line of the text reports a failure. Only lines in the tools' own form,
/// such as "postconf: fatal: text", are considered.
bool reportsFailure(const std::string& messages, Severity severity);

} // namespace torva::mail::postfix
