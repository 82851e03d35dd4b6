// The process-wide stream for fatal messages: each character reaches standard
// error at once, each finished line is repeated on standard output. Output errors are
// ignored, also those of a reader that has left: there is no SIGPIPE. Everything else
// that reports goes through torva/libc/log.h.
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

    /// Flushes std::cerr and moves what was written since the last call to
    /// std::cout, flushed.
    int sync() override;

private:
    std::string pending;
};

/// The stream. std::endl or a flush finishes a line; what is unfinished at the
/// end of its life is on standard error only.
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
