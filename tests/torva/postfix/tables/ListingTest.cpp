#include "torva/postfix/tables/Listing.h"
#include "support/CapturedClog.h"

#include <gmock/gmock.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using torva::test::CapturedClog;

namespace {

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

void PrintTo(const Case& tested, std::ostream* out) {
    *out << tested.name;
}

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
                    Case{"QuotedKeyEndsAtItsFirstBlank", "\"a b\"@c.net x", "\"a", "b\"@c.net x"},
                    Case{"EmptyKey", " value", "", "value"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(ListingLineReportTest, LineWithoutASeparatorIsLoggedAndSkipped) {
    const CapturedClog log;
    EXPECT_FALSE(parseListingLine("lonelykey"));
    EXPECT_EQ(log.str(), "invalid key/value 'lonelykey'\n");
}

TEST(ListingLineReportTest, EmptyLineIsLoggedAndSkipped) {
    const CapturedClog log;
    EXPECT_FALSE(parseListingLine(""));
    EXPECT_EQ(log.str(), "invalid key/value ''\n");
}

} // namespace
