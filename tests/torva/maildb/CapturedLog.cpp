#include "torva/maildb/CapturedLog.h"

#include "support/AllocationFaults.h"
#include "torva/libc/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace torva::test {

namespace {

std::vector<LogLine> lines;
void (*previous)(int, const char*, ...) = nullptr;

std::string formatted(const char* format, va_list arguments) {
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    std::string result(length < 0 ? "" : text);
    std::free(text);
    return result;
}

void capture(int priority, const char* format, ...) {
    const AllocationFaults::Pause pause;
    va_list arguments;
    va_start(arguments, format);
    lines.emplace_back(priority, formatted(format, arguments));
    va_end(arguments);
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
