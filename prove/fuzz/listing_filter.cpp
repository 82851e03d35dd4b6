// The chain that filters a listing, for the domain "d.net": however the bytes are
// cut, the result is the same lines and the same reports, and they are those of a second,
// line-by-line filter written here.
#include "Fuzz.h"
#include "support/CapturedClog.h"
#include "torva/postfix/tables/DataStreamFilter.h"
#include "torva/postfix/tables/ListingFilter.h"
#include "torva/postfix/tables/NotInDomainFilter.h"

using namespace torva::fuzz;
using namespace torva::mail::postfix::database;

namespace {

struct Outcome {
    std::string lines;
    std::string reports;
};

Outcome filtered(const std::vector<std::string>& pieces) {
    const torva::test::CapturedClog log;
    std::ostringstream out;
    DataStreamFilter<ElementsFilter<NotInDomainFilter>> chain(
        out, ElementsFilter<NotInDomainFilter>(NotInDomainFilter("d.net", false)));
    for (const std::string& piece : pieces) {
        chain(std::vector<char>(piece.begin(), piece.end()));
    }
    return {out.str(), log.str()};
}

bool inside(const std::string& text) {
    const std::string domain = "d.net";
    const std::string address = "@" + domain;
    return text == domain ||
           (text.size() >= address.size() &&
            text.compare(text.size() - address.size(), address.size(), address) == 0);
}

void addLine(const std::string& line, Outcome& wanted) {
    const std::string::size_type blank = line.find_first_of(" \t");
    if (blank == std::string::npos) {
        wanted.reports += "invalid key/value '" + line + "'\n";
        return;
    }
    std::string joined;
    std::string element;
    bool dropped = false;
    for (const char c : line.substr(blank) + ",") {
        if (std::string(" \t\n\v\f\r,").find(c) == std::string::npos) {
            element += c;
            continue;
        }
        dropped = dropped || inside(element);
        if (!element.empty() && !inside(element)) {
            joined += (joined.empty() ? "" : ", ") + element;
        }
        element.clear();
    }
    if (!inside(line.substr(0, blank)) && !joined.empty()) {
        const std::string::size_type value = line.find_first_not_of(" \t", blank);
        wanted.lines += (dropped ? line.substr(0, value) + joined : line) + "\n";
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    std::vector<std::string> lines = linesOf(text);
    lines.pop_back(); // unfinished
    Outcome wanted;
    for (const std::string& line : lines) {
        addLine(line, wanted);
    }
    for (const std::vector<std::string>& pieces : cuttings(text)) {
        const Outcome outcome = filtered(pieces);
        require(outcome.lines == wanted.lines, "these lines stay, however the text is cut");
        require(outcome.reports == wanted.reports, "these lines are reported, however it is cut");
    }
    require(filtered({wanted.lines}).lines == wanted.lines, "lines that pass do so again");
    return 0;
}
