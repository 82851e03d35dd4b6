#include "postfix/tables/Listing.h"

#include <gmock/gmock.h>

#include <iostream>
#include <sstream>

using namespace torva::mail::postfix;
using testing::ElementsAre;

namespace {

/// Collects what is written to std::clog.
class CapturedLog {
public:
    CapturedLog() : before_(std::clog.rdbuf(text_.rdbuf())) {}
    ~CapturedLog() { std::clog.rdbuf(before_); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* before_;
};

std::vector<char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(LineCutterTest, EveryWayOfCuttingIntoTwoChunksGivesTheSameLines) {
    const std::string text = "one\n\ntwo three\nunfinished";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        LineCutter cutter;
        std::vector<std::string> lines;
        const auto take = [&](const std::string& line) { lines.push_back(line); };
        cutter.feed(bytes(text.substr(0, cut)), take);
        cutter.feed(bytes(text.substr(cut)), take);
        EXPECT_THAT(lines, ElementsAre("one", "", "two three")) << "cut at " << cut;
    }
}

TEST(LineCutterTest, UnfinishedLastLineIsNoLine) {
    LineCutter cutter;
    int lines = 0;
    cutter.feed(bytes("a b"), [&](const std::string&) { ++lines; });
    EXPECT_EQ(lines, 0);
    cutter.feed(bytes("\n"), [&](const std::string& line) {
        ++lines;
        EXPECT_EQ(line, "a b");
    });
    EXPECT_EQ(lines, 1);
}

struct Case {
    const char* name;
    const char* line;
    const char* key;
    const char* value;
};

class ListingLineTest : public testing::TestWithParam<Case> {};

TEST_P(ListingLineTest, IsTakenApart) {
    const std::string line = GetParam().line;
    const auto parsed = parseListingLine(line);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->key, GetParam().key);
    EXPECT_EQ(parsed->value, GetParam().value);
    EXPECT_EQ(line.substr(parsed->valueStart, parsed->value.size()), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ListingLineTest,
    testing::Values(Case{"SurroundingBlanksGoAndInnerOnesStay", "key    value with  blanks   ",
                         "key", "value with  blanks"},
                    Case{"TabSeparates", "key\tvalue", "key", "value"},
                    Case{"BlankAndTabSeparate", "key \t value\t", "key", "value"},
                    Case{"KeyAloneHasNoValue", "key \t ", "key", ""},
                    Case{"EmptyKey", " value", "", "value"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(ListingLineReportTest, LineWithoutASeparatorIsLoggedAndSkipped) {
    const CapturedLog log;
    EXPECT_FALSE(parseListingLine("lonelykey"));
    EXPECT_EQ(log.text(), "invalid key/value 'lonelykey'\n");
}

TEST(ListingLineReportTest, EmptyLineIsLoggedAndSkipped) {
    const CapturedLog log;
    EXPECT_FALSE(parseListingLine(""));
    EXPECT_EQ(log.text(), "invalid key/value ''\n");
}

} // namespace
