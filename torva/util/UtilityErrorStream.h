// The process-wide stream for fatal messages: each character goes to standard error at
// once, each finished line is repeated on standard output. Output errors are ignored, and a
// reader that is gone causes no SIGPIPE. All other reports go through torva/libc/log.h.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace torva {

/// Unbuffered: every character goes through overflow().
class UtilityErrorStreamBuf : public std::streambuf {
protected:
    /// Writes the character to std::cerr and keeps it for sync().
    int_type overflow(int_type c) override;

    /// Flushes std::cerr, and writes the characters since the last call to std::cout.
    int sync() override;

private:
    std::string pending;
};

/// The stream. std::endl or a flush finishes a line; a line that is never finished is only
/// on standard error.
class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();
    ~UtilityErrorStream() override;

private:
    UtilityErrorStreamBuf buf_;
};

/// The one instance, from before main() until exit. Main thread only.
extern UtilityErrorStream utilityErrorStream;

} // namespace torva
