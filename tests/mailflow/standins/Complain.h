// How a stand-in says what went wrong: one line, which spawn(8) and pipe(8) hand on
// to the mail log or the sender, and an exit status of sysexits(3).
#pragma once

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

namespace torva::mailflow {

/// Reports a failed system call on standard error.
///
/// \param what    operation and object, for example "open /run/x"
/// \param status  exit status of the program
/// \return status; the text of errno at the time of the call is in the line
inline int complain(const std::string& what, int status) {
    const int error = errno;
    std::cerr << what << ": " << std::strerror(error) << '\n';
    return status;
}

} // namespace torva::mailflow
