// How messages of tools are judged: a text fails when one of its lines does, and a line
// by a rule that is written here a second time, from the format of the messages.
#include "Fuzz.h"
#include "torva/postfix/params/MessageScan.h"

#include <cstring>

using namespace torva::fuzz;
using torva::mail::postfix::reportsFailure;
using torva::mail::postfix::Severity;

namespace {

/// "program:", blanks, "word:", in this order; what follows does not matter.
bool lineFails(const std::string& line, bool strict) {
    const char* const end = line.data() + line.size();
    const char* at = std::find(line.data(), end, ':');
    at = at == end ? end : std::find_if(at + 1, end, [](char c) { return c != ' '; });
    if (std::find(at, end, ':') == end) {
        return false;
    }
    const std::string rest(at, end);
    const auto begins = [&rest](const char* word) { return rest.rfind(word, 0) == 0; };
    return begins("panic:") || begins("fatal:") || begins("error:") ||
           (strict && !begins("warning:"));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    bool lenient = false;
    bool strict = false;
    for (const std::string& line : linesOf(text)) {
        lenient = lenient || lineFails(line, false);
        strict = strict || lineFails(line, true);
        require(reportsFailure(line, Severity::lenient) == lineFails(line, false),
                "a line alone is judged by its first two words, lenient");
        require(reportsFailure(line, Severity::strict) == lineFails(line, true),
                "a line alone is judged by its first two words, strict");
    }
    require(reportsFailure(text, Severity::lenient) == lenient, "one line decides, lenient");
    require(reportsFailure(text, Severity::strict) == strict, "one line decides, strict");
    require(strict || !lenient, "a text that passes strict mode passes lenient mode");
    require(reportsFailure(text + "\nx: fatal: y", Severity::lenient), "a last line is not missed");
    require(reportsFailure("x: fatal: y\n" + text, Severity::lenient),
            "a first line is not missed");
    return 0;
}
