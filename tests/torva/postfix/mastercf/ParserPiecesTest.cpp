#include "torva/postfix/mastercf/ParserPieces.h"

#include "torva/postfix/mastercf/ParserActions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace torva::parser {
namespace {

namespace spirit = boost::spirit::classic;

struct Case {
    const char* name;
    std::string input;
    int matched; ///< number of bytes; -1: no match
};

/// Number of bytes that a piece takes from the beginning of a text; -1: no match.
template <class Piece>
int matchedBy(const Piece& piece, const std::string& text) {
    const char* const first = text.data();
    const auto result = spirit::parse(first, first + text.size(), piece);
    return result.hit ? static_cast<int>(result.stop - first) : -1;
}

template <class Piece>
void check(const std::vector<Case>& cases) {
    const Piece piece;
    for (const Case& c : cases) {
        EXPECT_EQ(matchedBy(piece, c.input), c.matched) << c.name;
    }
}

TEST(EmptyLineParserTest, TakesBlanksAndNothingElse) {
    check<empty_line_parser>({
        {"nothing", "", 0},
        {"a word", "x", 0},
        {"space, tab, carriage return", " \t\r x", 4},
        {"not the line feed", "  \n", 2},
        {"not the vertical tab", "\v", 0},
        {"not the form feed", " \f", 1},
        {"not the no-break space of Latin 1", "\xA0", 0},
        {"not a null byte", std::string("\0", 1), 0},
    });
}

TEST(CommentsParserTest, RunsFromItsSignToTheEndOfTheLine) {
    check<comments_parser>({
        {"nothing", "", -1},
        {"a word", "x # y", -1},
        {"blanks before", " # y", -1},
        {"sign alone", "#", 1},
        {"up to the line feed", "# x y\nz", 5},
        {"another sign", "##", 2},
        {"carriage return belongs to it", "#x\r\n", 3},
        {"any byte", std::string("#\0\x7F\x80\xFF\v\f", 7), 7},
    });
}

TEST(CommentsLineParserTest, AllowsBlanksBeforeTheComment) {
    check<comments_line_parser>({
        {"nothing", "", -1},
        {"blanks alone", "  ", -1},
        {"a word", "x", -1},
        {"comment", "# x", 3},
        {"indented comment", "\t \r# x", 6},
        {"one line only", "#x\n#y", 2},
        {"not across a line feed", " \n#", -1},
    });
}

TEST(ContinuousSpacesParserTest, RunsToTheNextFieldOfALogicalLineOrStopsBeforeTheLineFeed) {
    check<continuous_spaces_parser>({
        {"nothing", "", 0},
        {"a word", "x", 0},
        {"blanks", " \t\rx", 3},
        {"comment to the end of the line", " # x\ny", 4},
        {"comment to the end of the text", "#x", 2},
        {"line feed and nothing", "\n", 0},
        {"line feed and a word", "\nx", 0},
        {"continuation line", "\n x", 2},
        {"continuation line of tab", " \n\t \tx", 5},
        {"continuation line of carriage return", "\n\rx", 2},
        {"comment, then continuation", " # c\n x", 6},
        {"empty lines between", "\n\n\n x", 4},
        {"blank lines between", "\n  \n\t\n x", 7},
        {"comments between", "\n#a\n  # b\n x", 11},
        {"comment between, then a word", " \n#a\nx", 1},
        {"empty line, then a word", "\n\nx", 0},
        {"blank last line", "\n  ", 3},
        {"blank last line with its line feed", "\n  \n", 0},
        {"indented comment on the last line", "\n  #", 3},
    });
}

TEST(WordAppenderTest, AppendsTheMatchedText) {
    std::vector<std::string> words{"first"};
    EXPECT_EQ(matchedBy((+spirit::alpha_p)[WordAppender<std::vector<std::string>>(words)], "abc d"),
              3);
    EXPECT_EQ(words, (std::vector<std::string>{"first", "abc"}));
}

TEST(ConstAssignerTest, AssignsItsValueWhateverWasMatched) {
    int value = 0;
    EXPECT_EQ(matchedBy(spirit::ch_p('x')[ConstAssigner<int>(value, 5)], "x"), 1);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(matchedBy(spirit::str_p("xyz")[ConstAssigner<int>(value, 6)], "xyz"), 3);
    EXPECT_EQ(value, 6);
    EXPECT_EQ(matchedBy(spirit::str_p("xyz")[ConstAssigner<int>(value, 7)], "xy"), -1);
    EXPECT_EQ(value, 6);
}

} // namespace
} // namespace torva::parser
