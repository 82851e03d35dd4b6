// Collects the output to std::clog during the lifetime of the object.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace torva::test {

class CapturedClog {
public:
    CapturedClog() : before_(std::clog.rdbuf(text_.rdbuf())) {}
    ~CapturedClog() { std::clog.rdbuf(before_); }
    CapturedClog(const CapturedClog&) = delete;
    CapturedClog& operator=(const CapturedClog&) = delete;

    std::string str() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* before_;
};

} // namespace torva::test
