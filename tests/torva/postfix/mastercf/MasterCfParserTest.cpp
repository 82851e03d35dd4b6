#include "torva/postfix/mastercf/MasterCfParser.h"

#include "SampleMasterCf.h"
#include "Support.h"
#include "support/Sanitizer.h"

#include <gmock/gmock.h>

#include <numeric>

namespace torva::mail::postfix::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

/// The columns of a service up to its words.
const std::string columns = "smtp inet n - n - - ";
const std::string smtpd = columns + "smtpd";

struct Accepted {
    const char* name;
    std::string text;
    std::vector<std::string> lines;
    std::vector<std::string> records; ///< see describe()
};

struct Refused {
    const char* name;
    std::string text;
    std::vector<std::string> before; ///< lines that were read before the failure
};

void PrintTo(const Accepted& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.text);
}
void PrintTo(const Refused& c, std::ostream* out) {
    *out << ::testing::PrintToString(c.text);
}

template <class Case>
std::string nameOf(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

/// All services of a content: their keys are the first words of their lines.
std::vector<std::string> recordsOf(const MasterCfLines& lines) {
    std::vector<std::string> records;
    for (const std::string& line : lines.lines()) {
        const std::string name = line.substr(0, line.find_first_of(" \t\r\n#"));
        for (const ModuleType type : {ModuleType::inet, ModuleType::unix, ModuleType::fifo}) {
            if (lines.contains({name, type}) && lines.text({name, type}) == line) {
                records.push_back(describe(lines.record({name, type})));
            }
        }
    }
    return records;
}

class AcceptedTest : public ::testing::TestWithParam<Accepted> {};

TEST_P(AcceptedTest, KeepsEveryLineAndReadsTheServices) {
    MasterCfLines lines;
    EXPECT_TRUE(parseText(GetParam().text, lines));
    EXPECT_THAT(linesOf(lines), ElementsAreArray(GetParam().lines));
    EXPECT_THAT(recordsOf(lines), ElementsAreArray(GetParam().records));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, AcceptedTest,
    ::testing::Values(Accepted{"Nothing", "", {""}, {}}, //
                      Accepted{"LineFeedAlone", "\n", {"", ""}, {}},
                      Accepted{"BlanksAlone", " \t\r", {" \t\r"}, {}},
                      Accepted{"EmptyLines", "\n \n", {"", " ", ""}, {}},
                      Accepted{"CommentLine", "# x", {"# x"}, {}},
                      Accepted{"IndentedCommentIsACommentLineToo", "\t # x\n", {"\t # x", ""}, {}},
                      Accepted{"CommentOfAnyBytes",
                               std::string("#\0\x7F\x80\xFF\r\v\n", 8),
                               {std::string("#\0\x7F\x80\xFF\r\v", 7), ""},
                               {}},
                      Accepted{"LastLineWithoutLineFeedParses",
                               smtpd,
                               {smtpd},
                               {"smtp/inet n - n -1 -1 [smtpd]"}},
                      Accepted{"FinalLineFeedGainsAnEmptyLastElement",
                               smtpd + "\n",
                               {smtpd, ""},
                               {"smtp/inet n - n -1 -1 [smtpd]"}},
                      Accepted{"TrailingBlanksBelongToTheService",
                               smtpd + " \t \n#",
                               {smtpd + " \t ", "#"},
                               {"smtp/inet n - n -1 -1 [smtpd]"}},
                      Accepted{"CrLfFileKeepsItsCrs",
                               "# c\r\n" + smtpd + "\r\n  -o a=b\r\n\r\n",
                               {"# c\r", smtpd + "\r\n  -o a=b\r", "\r", ""},
                               {"smtp/inet n - n -1 -1 [smtpd][-o][a=b]"}},
                      Accepted{"LinesAroundAServiceStayTheirOwn",
                               "\n# a\n" + smtpd + "\n\n  \n# b\nx unix - - - - - y",
                               {"", "# a", smtpd, "", "  ", "# b", "x unix - - - - - y"},
                               {"smtp/inet n - n -1 -1 [smtpd]", "x/unix - - - -1 -1 [y]"}},
                      Accepted{"BlankLastLineIsNoContinuation",
                               smtpd + "\n  ",
                               {smtpd, "  "},
                               {"smtp/inet n - n -1 -1 [smtpd]"}},
                      Accepted{"IndentedCommentBehindAServiceIsNoContinuation",
                               smtpd + "\n  # x",
                               {smtpd, "  # x"},
                               {"smtp/inet n - n -1 -1 [smtpd]"}},
                      Accepted{"SecondOfTwoEqualKeysReplacesTheFirstInItsPlace",
                               smtpd + "\n# c\n" + columns + "other",
                               {columns + "other", "# c"},
                               {"smtp/inet n - n -1 -1 [other]"}},
                      Accepted{"SameNameWithAnotherTypeIsAnotherService",
                               smtpd + "\nsmtp unix - - - - - smtp",
                               {smtpd, "smtp unix - - - - - smtp"},
                               {"smtp/inet n - n -1 -1 [smtpd]", "smtp/unix - - - -1 -1 [smtp]"}}),
    nameOf<Accepted>);

INSTANTIATE_TEST_SUITE_P(
    Fields, AcceptedTest,
    ::testing::Values(
        Accepted{"RunsOfBlanks",
                 "smtp      inet  n \t     -   n    \r   -       -       smtpd",
                 {"smtp      inet  n \t     -   n    \r   -       -       smtpd"},
                 {"smtp/inet n - n -1 -1 [smtpd]"}},
        Accepted{"EveryTypeAndFlag",
                 "a inet y n y 1 2 w\nb unix n y n 3 4 w\nc fifo - - - - - w",
                 {"a inet y n y 1 2 w", "b unix n y n 3 4 w", "c fifo - - - - - w"},
                 {"a/inet y n y 1 2 [w]", "b/unix n y n 3 4 [w]", "c/fifo - - - -1 -1 [w]"}},
        Accepted{"WakeupWithAQuestionMarkIsConditional",
                 "x fifo n - - 60? 1 x",
                 {"x fifo n - - 60? 1 x"},
                 {"x/fifo n - - 60? 1 [x]"}},
        Accepted{"DashNeverInheritsFromTheLineBefore",
                 "a unix y y y 60? 5 w v\nb inet - - - - - u",
                 {"a unix y y y 60? 5 w v", "b inet - - - - - u"},
                 {"a/unix y y y 60? 5 [w][v]", "b/inet - - - -1 -1 [u]"}},
        Accepted{"EverySeparatorMayBeEmptyWhereTheClassesTellTheFieldsApart",
                 "x inetnyn60?7smtpd",
                 {"x inetnyn60?7smtpd"},
                 {"x/inet n y n 60? 7 [smtpd]"}},
        Accepted{
            "DashesNeedNoSeparator", "x unix-----w", {"x unix-----w"}, {"x/unix - - - -1 -1 [w]"}},
        Accepted{"MinusOneIsADashAndTheNextColumn",
                 "x inet - - - -1 2 w",
                 {"x inet - - - -1 2 w"},
                 {"x/inet - - - -1 1 [2][w]"}},
        Accepted{"MinusOneAsProcessLimitIsADashAndAWord",
                 "x inet - - - 60 -1",
                 {"x inet - - - 60 -1"},
                 {"x/inet - - - 60 -1 [1]"}},
        Accepted{"NumberRunsToItsLastDigit",
                 "x inet - - - 1 234w",
                 {"x inet - - - 1 234w"},
                 {"x/inet - - - 1 234 [w]"}},
        Accepted{"QuestionMarkBehindTheLastNumberIsAWord",
                 "x inet - - - 1 2?",
                 {"x inet - - - 1 2?"},
                 {"x/inet - - - 1 2 [?]"}},
        Accepted{"LeadingZerosAreDecimal",
                 "x inet - - - 010 0000000000000007 w",
                 {"x inet - - - 010 0000000000000007 w"},
                 {"x/inet - - - 10 7 [w]"}},
        Accepted{"GreatestUnsignedNumberIsStoredAsItIs",
                 "x inet - - - 4294967295 4294967295 w",
                 {"x inet - - - 4294967295 4294967295 w"},
                 {"x/inet - - - -1 -1 [w]"}},
        Accepted{"NumberAboveTheSignedRangeIsStoredAsItIs",
                 "x inet - - - 2147483648? 2147483647 w",
                 {"x inet - - - 2147483648? 2147483647 w"},
                 {"x/inet - - - -2147483648? 2147483647 [w]"}},
        Accepted{"WordsOfDigitsAndDashes",
                 columns + "- 1 y",
                 {columns + "- 1 y"},
                 {"smtp/inet n - n -1 -1 [-][1][y]"}}),
    nameOf<Accepted>);

INSTANTIATE_TEST_SUITE_P(
    Continuations, AcceptedTest,
    ::testing::Values(Accepted{"ArgumentLineContinuesTheService",
                               smtpd + "\n  -o smtpd_sasl_auth_enable=yes\n",
                               {smtpd + "\n  -o smtpd_sasl_auth_enable=yes", ""},
                               {"smtp/inet n - n -1 -1 [smtpd][-o][smtpd_sasl_auth_enable=yes]"}},
                      Accepted{"BetweenAnyTwoFields",
                               "x\n inet\n\tn\n y\n n\n 60?\n 1\n w\n v",
                               {"x\n inet\n\tn\n y\n n\n 60?\n 1\n w\n v"},
                               {"x/inet n y n 60? 1 [w][v]"}},
                      Accepted{"CommentsAndEmptyLinesBeforeAContinuationBelongToTheText",
                               smtpd + " # one\n#two\n\n  # three\n  \n -o",
                               {smtpd + " # one\n#two\n\n  # three\n  \n -o"},
                               {"smtp/inet n - n -1 -1 [smtpd][-o]"}},
                      Accepted{"CommentsBetweenColumnsBelongToTheText",
                               "x # a\n#b\n inet # c\n - - - - -#d\n w",
                               {"x # a\n#b\n inet # c\n - - - - -#d\n w"},
                               {"x/inet - - - -1 -1 [w]"}},
                      Accepted{"SignWithinAWordBeginsAComment",
                               smtpd + "#a b\n c#d\n e",
                               {smtpd + "#a b\n c#d\n e"},
                               {"smtp/inet n - n -1 -1 [smtpd][c][e]"}},
                      Accepted{"CommentThatTurnsOutNotToBeContinuedOverIsALineOfItsOwn",
                               smtpd + "\n -o\n# c\n\n # d\nx unix - - - - - y",
                               {smtpd + "\n -o", "# c", "", " # d", "x unix - - - - - y"},
                               {"smtp/inet n - n -1 -1 [smtpd][-o]", "x/unix - - - -1 -1 [y]"}},
                      Accepted{"TrailingBlanksOfTheLastContinuation",
                               smtpd + "\n -o \t\r\n",
                               {smtpd + "\n -o \t\r", ""},
                               {"smtp/inet n - n -1 -1 [smtpd][-o]"}}),
    nameOf<Accepted>);

class RefusedTest : public ::testing::TestWithParam<Refused> {};

TEST_P(RefusedTest, StopsThereAndKeepsWhatStoodBefore) {
    MasterCfLines lines;
    EXPECT_FALSE(parseText(GetParam().text, lines));
    EXPECT_THAT(linesOf(lines), ElementsAreArray(GetParam().before));
}

// The refused line first matches as an empty one, by its blanks, and only
// then something other than a line feed follows.
INSTANTIATE_TEST_SUITE_P(
    Lines, RefusedTest,
    ::testing::Values(
        Refused{"UpperCaseName", "# c\nSMTP inet n - n - - smtpd", {"# c", ""}},
        Refused{"UpperCaseWithinAName", "sMtp inet n - n - - smtpd", {""}},
        Refused{"SlashWithinAName", "private/x unix n - n - - smtpd", {""}},
        Refused{"OtherType", "postlog unix-dgram n - n - 1 postlogd\n", {""}},
        Refused{"TypeInUpperCase", "smtp INET n - n - - smtpd", {""}},
        Refused{"TypePass", "smtpd pass - - n - - smtpd", {""}},
        Refused{"IndentedServiceAtTheBeginning", "  " + smtpd, {"  "}},
        Refused{"IndentedTextBehindAComment", "# c\n -o x", {"# c", " "}},
        Refused{"FlagInUpperCase", "smtp inet N - n - - smtpd", {""}},
        Refused{"OtherFlag", "smtp inet n x n - - smtpd", {""}},
        Refused{"NumberAbove32Bits", "smtp inet n - n 4294967296 1 smtpd", {""}},
        Refused{"ProcessLimitAbove32Bits", "smtp inet n - n 1 4294967296 smtpd", {""}},
        Refused{"NumberFarAbove32Bits", "smtp inet n - n 99999999999999999999 1 smtpd", {""}},
        Refused{"BlankBeforeTheQuestionMark", "smtp inet n - n 60 ? 1 smtpd", {""}},
        Refused{"QuestionMarkBehindADash", "smtp inet n - n -? 1 smtpd", {""}},
        Refused{"MissingColumn", "smtp inet n - n - smtpd", {""}}, Refused{"NoWord", columns, {""}},
        Refused{"NoWordButACommentInItsPlace", columns + "# smtpd", {""}},
        Refused{"NameAlone", "smtp\n", {""}},
        Refused{"CommentBehindTheLastWord", smtpd + " # c\n", {smtpd + " "}},
        Refused{"CommentBehindTheLastWordAndNoContinuation", smtpd + " # c\n# d\nx", {smtpd + " "}},
        Refused{"CommentRightBehindTheLastWord", smtpd + "#c", {smtpd}},
        Refused{
            "CommentBehindTheLastWordOfAContinuation", smtpd + "\n -o #c\n", {smtpd + "\n -o "}},
        Refused{"ContinuationOfOtherCharacters", smtpd + "\n  \x80", {smtpd, "  "}},
        Refused{"NullByte", smtpd + std::string("\0", 1), {smtpd}},
        Refused{"VerticalTab", "\v", {""}}, Refused{"ByteOrderMark", "\xEF\xBB\xBF# c", {""}},
        Refused{"SecondServiceIsBroken", smtpd + "\n\nsmtp unix broken\n", {smtpd, "", ""}}),
    nameOf<Refused>);

/// Every byte for which a text, made with that byte, has a service of this key.
template <class MakeText>
std::string bytesAccepted(MakeText makeText) {
    std::string accepted;
    for (int value = 0; value < 256; ++value) {
        const char byte = static_cast<char>(value);
        if (parses(makeText(byte))) {
            accepted += byte;
        }
    }
    return accepted;
}

std::string range(char first, char last) {
    std::string text(static_cast<std::size_t>(last - first + 1), first);
    std::iota(text.begin(), text.end(), first);
    return text;
}

TEST(MasterCfParserTest, NamesAreOfLowerCaseLettersDigitsAndFourSigns) {
    const std::string accepted =
        bytesAccepted([](char byte) { return "a" + std::string(1, byte) + "b inet - - - - - w"; });
    EXPECT_EQ(accepted, "-." + range('0', ':') + "_" + range('a', 'z'));
}

TEST(MasterCfParserTest, WordsAreOfAllPrintableCharactersButTheCommentSign) {
    const std::string accepted =
        bytesAccepted([](char byte) { return columns + std::string(1, byte); });
    EXPECT_EQ(accepted, "!\"" + range('$', '~'));
}

TEST(MasterCfParserTest, WordsAreParsedWholeForEveryOfTheirCharacters) {
    std::string word = range('!', '~');
    word.erase(word.find('#'), 1);
    EXPECT_EQ(recordIn(columns + word + " x", "smtp"), "smtp/inet n - n -1 -1 [" + word + "][x]");
}

TEST(MasterCfParserTest, BlanksAreTabSpaceAndCarriageReturn) {
    const std::string accepted =
        bytesAccepted([](char byte) { return "#\n" + std::string(1, byte) + "\n" + smtpd; });
    EXPECT_EQ(accepted, "\t\n\r #");
}

TEST(MasterCfParserTest, NumbersAcceptNothingButDigits) {
    const std::string accepted =
        bytesAccepted([](char byte) { return "x inet - - - " + std::string(1, byte) + " 1 w"; });
    EXPECT_EQ(accepted, "-" + range('0', '9'));
}

TEST(MasterCfParserTest, SmtpLineWithRunsOfBlanksParsesToItsFields) {
    EXPECT_EQ(recordIn("smtp      inet  n       -       n       -       -       smtpd", "smtp"),
              "smtp/inet n - n -1 -1 [smtpd]");
}

TEST(MasterCfParserTest, AppendsToWhatTheTargetHolds) {
    MasterCfLines lines;
    lines.append("before");
    EXPECT_TRUE(parseText(smtpd, lines));
    EXPECT_THAT(linesOf(lines), ElementsAre("before", smtpd));
}

TEST(MasterCfParserTest, FailedServiceLeavesNoTraceInTheOneThatWasReadBefore) {
    MasterCfLines lines;
    EXPECT_FALSE(parseText("a unix y y y 1? 1 w\nb inet n n n 2 2", lines));
    EXPECT_THAT(recordsOf(lines), ElementsAre("a/unix y y y 1? 1 [w]"));
    EXPECT_FALSE(lines.contains({"b", ModuleType::inet}));
}

TEST(MasterCfParserTest, MasterCfAsInstalledIsAccepted) {
    MasterCfLines lines;
    EXPECT_TRUE(parseText(sampleMasterCf, lines));
    EXPECT_THAT(
        recordsOf(lines),
        ElementsAre(
            "smtp/inet n - y -1 -1 [smtpd]",
            "submission/inet n - y -1 -1 [smtpd][-o][syslog_name=postfix/submission][-o]"
            "[smtpd_tls_security_level=encrypt][-o]"
            "[smtpd_client_restrictions=permit_sasl_authenticated,reject][-o]"
            "[milter_macro_daemon_name=ORIGINATING]",
            "pickup/unix n - y 60 1 [pickup]", "cleanup/unix n - y -1 0 [cleanup]",
            "qmgr/unix n - n 300 1 [qmgr]", "tlsmgr/unix - - y 1000? 1 [tlsmgr]",
            "127.0.0.1:10030/inet n n n -1 10 [spawn][user=filter][argv=/usr/bin/filter][-x]"
            "[${sender}][--reply='<a@b.example>']",
            "smtp/unix - - y -1 -1 [smtp]",
            "relay/unix - - y -1 -1 [smtp][-o][syslog_name=postfix/$service_name]",
            "maildrop/unix - n n -1 -1 [pipe][flags=DRXhu][user=vmail]"
            "[argv=/usr/bin/maildrop][-d][${recipient}]",
            "scalemail-backend/unix - n n -1 2 [pipe][flags=R][user=scalemail]"
            "[argv=/usr/lib/scalemail/bin/scalemail-store][${nexthop}][${user}][${extension}]"));
}

TEST(MasterCfParserTest, MasterCfOfNewerPostfixWithADatagramServiceIsRefused) {
    const std::string text = sampleMasterCf;
    EXPECT_FALSE(
        parses(text + "postlog   unix-dgram n  -       n       -       1       postlogd\n"));
    EXPECT_TRUE(
        parses(text + "#postlog  unix-dgram n  -       n       -       1       postlogd\n"));
}

TEST(MasterCfParserTest, LinesJoinedGiveTheTextBack) {
    MasterCfLines lines;
    ASSERT_TRUE(parseText(sampleMasterCf, lines));
    std::string joined;
    for (const std::string& line : lines.lines()) {
        joined += line + "\n";
    }
    EXPECT_EQ(joined, sampleMasterCf + std::string("\n"));
}

// A lot of each kind that make a grammar look ahead: no stack may
// overflow, and a time that grows with the square would never end.
TEST(MasterCfParserTest, LongInputsNeitherOverflowTheStackNorLookAheadAgainAndAgain) {
    const auto repeated = [](const std::string& piece, int times) {
        std::string text;
        for (int i = 0; i < times; ++i) {
            text += piece;
        }
        return text;
    };
    constexpr int many = TORVA_TEST_ASAN ? 10000 : 50000;
    const std::string empty = repeated("\n", 2 * many);
    const std::string comments = repeated("  # a comment\n", many);
    EXPECT_FALSE(parses(empty + "X"));
    EXPECT_FALSE(parses(smtpd + empty + "X"));
    EXPECT_FALSE(parses(smtpd + std::string(20 * many, ' ') + "#"));
    EXPECT_TRUE(parses("#" + std::string(20 * many, 'x')));
    EXPECT_TRUE(parses(smtpd + std::string(20 * many, 'x')));
    EXPECT_TRUE(parses(smtpd + repeated(" x", many)));
    EXPECT_TRUE(parses(smtpd + repeated("\n#\n x", many)));
    EXPECT_TRUE(parses(smtpd + "\n" + comments));
    EXPECT_TRUE(parses(smtpd + "\n" + comments + "   # last"));
    EXPECT_FALSE(parses(smtpd + "\n" + comments + " \x80"));
    EXPECT_FALSE(parses("smtp\n" + comments + " broken"));
    EXPECT_TRUE(parses(repeated(smtpd + "\n#\n\n", many)));
}

} // namespace
} // namespace torva::mail::postfix::testing
