// Captures the messages of torva_log while it exists, instead of printing them.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace torva::test {

/// A reported message: priority and text.
using LogLine = std::pair<int, std::string>;

class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// The messages since the last call.
    std::vector<LogLine> take();

    /// All the messages since the last take(), joined, for a test that looks for a
    /// text that must not be in any of them.
    std::string text() const;
};

} // namespace torva::test
