#include "maildb/CapturedLog.h"

#include "libc/log.h"
#include "maildb/AllocationFaults.h"

#include <cstdarg>
#include <cstdio>

namespace torva::test {

namespace {

std::vector<LogLine> lines;
void (*previous)(int, const char*, ...) = nullptr;

void capture(int priority, const char* format, ...) {
    const AllocationFaults::Pause pause;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    va_end(arguments);
    text.pop_back();
    lines.emplace_back(priority, std::move(text));
}

} // namespace

CapturedLog::CapturedLog() {
    lines.clear();
    previous = torva_log;
    torva_log = capture;
}

CapturedLog::~CapturedLog() {
    torva_log = previous;
}

std::vector<LogLine> CapturedLog::take() {
    return std::exchange(lines, {});
}

std::string CapturedLog::text() const {
    std::string all;
    for (const LogLine& line : lines) {
        all += line.second + '\n';
    }
    return all;
}

} // namespace torva::test
