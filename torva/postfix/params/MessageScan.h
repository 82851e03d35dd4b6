// Judges what a Postfix tool wrote to standard error, where its exit status alone
// does not tell. Pure text work.
#pragma once

#include <string>

namespace torva::mail::postfix {

/// How much a message may say without being a failure.
enum class Severity {
    lenient, ///< only "panic:", "fatal:" and "error:" are failures
    strict   ///< everything but "warning:" is one
};

/// Whether a line of the text, in the tools' own form "postconf: fatal: text",
/// reports a failure. Lines of any other form count for nothing.
bool reportsFailure(const std::string& messages, Severity severity);

} // namespace torva::mail::postfix
