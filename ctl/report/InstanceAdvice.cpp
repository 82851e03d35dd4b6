#include "ctl/report/InstanceAdvice.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <string_view>

namespace torva::ctl {

namespace {

using boost::algorithm::ends_with;
using boost::algorithm::starts_with;

const char* const instancePrograms[] = {"postconf ", "postfix ", "postmap ", "postalias ",
                                        "torva-postfixctl "};
const char* const separators[] = {": ", "; ", "&& ", "then ", "or ", "run ", "sudo "};

bool isCommand(std::string_view before, std::string_view rest) {
    const auto starts = [&rest](const char* program) { return starts_with(rest, program); };
    const auto ends = [&before](const char* separator) { return ends_with(before, separator); };
    return (before.empty() || std::any_of(std::begin(separators), std::end(separators), ends)) &&
           std::any_of(std::begin(instancePrograms), std::end(instancePrograms), starts);
}

/// As one word for a shell.
std::string quoted(const std::string& text) {
    const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    return text.find_first_not_of(plain) == std::string::npos
               ? text
               : "'" + boost::algorithm::replace_all_copy(text, "'", "'\\''") + "'";
}

} // namespace

std::string adviceFor(const std::string& directory, const std::string& advice) {
    if (directory.empty()) {
        return advice;
    }
    const std::string_view text = advice;
    std::string result;
    for (std::string::size_type at = 0; at < advice.size(); ++at) {
        if (isCommand(text.substr(0, at), text.substr(at))) {
            result += "MAIL_CONFIG=" + quoted(directory) + " ";
        }
        result += advice[at];
    }
    return result;
}

} // namespace torva::ctl
