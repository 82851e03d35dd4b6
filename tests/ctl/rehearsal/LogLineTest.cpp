#include "ctl/rehearsal/LogLine.h"

#include <gtest/gtest.h>

using torva::ctl::rehearsal::LogLine;
using torva::ctl::rehearsal::parseLogLine;

namespace {

struct Case {
    const char* name;
    std::string datagram;
    const char* program;
    long pid;
    const char* text;
};

void PrintTo(const Case& tested, std::ostream* out) {
    *out << tested.name;
}

const Case cases[] = {
    {"AsSyslogWritesIt", "<22>Nov 21 20:43:36 postfix/smtpd[123]: connect from x", "postfix/smtpd",
     123, "connect from x"},
    {"DayOfOneDigit", "<22>Nov  1 20:43:36 postfix/qmgr[7]: 4F2A: removed", "postfix/qmgr", 7,
     "4F2A: removed"},
    {"WithoutPid", "<22>Nov 21 20:43:36 spawn: fatal: x", "spawn", 0, "fatal: x"},
    {"WithoutTime", "<22>postfix/local[9]: y", "postfix/local", 9, "y"},
    {"WithoutPriority", "postfix/local[9]: y", "postfix/local", 9, "y"},
    {"TextAlone", "<22>Nov 21 20:43:36 just a text", "", 0, "just a text"},
    {"ColonsInTheText", "<22>a[1]: b: c: d", "a", 1, "b: c: d"},
    {"LineEndIsLeftOut", "<22>a[1]: b\n", "a", 1, "b"},
    {"ControlCharactersBecomeBlanks", std::string("<22>a[1]: b\tc\033d"), "a", 1, "b c d"},
    {"NullByte", std::string("<22>a[1]: b\0", 11), "a", 1, "b"},
    {"PidThatIsNone", "<22>a[x]: b", "", 0, "a[x]: b"},
    {"PidBeyondAnyNumber", "<22>a[12345678901]: b", "", 0, "a[12345678901]: b"},
    {"BlankInTheName", "<22>Nov 21 20:43:36 my mail/smtpd[123]: A: removed", "my mail/smtpd", 123,
     "A: removed"},
    {"BlankInATextWithoutProgram", "<22>my text: b", "", 0, "my text: b"},
    {"PidLaterInTheText", "<22>my text: a[1]: b", "", 0, "my text: a[1]: b"},
    {"PriorityWithoutEnd", "<22 a[1]: b", "", 0, "<22 a[1]: b"},
    {"Empty", "", "", 0, ""},
    {"PriorityAlone", "<22>", "", 0, ""},
};

class LogLineTest : public testing::TestWithParam<Case> {};

TEST_P(LogLineTest, IsTakenApart) {
    const LogLine line = parseLogLine(GetParam().datagram);
    EXPECT_EQ(line.program, GetParam().program);
    EXPECT_EQ(line.pid, GetParam().pid);
    EXPECT_EQ(line.text, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Messages, LogLineTest, testing::ValuesIn(cases),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(LogLineTest, WholeIsTheLineAsALogFileShowsIt) {
    EXPECT_EQ(parseLogLine("<22>Nov 21 20:43:36 postfix/smtpd[123]: a").whole(),
              "postfix/smtpd[123]: a");
    EXPECT_EQ(parseLogLine("spawn: a").whole(), "spawn: a");
    EXPECT_EQ(parseLogLine("a").whole(), "a");
}

TEST(LogLineTest, DaemonIsTheNameBehindTheLastSlash) {
    EXPECT_EQ(parseLogLine("postfix/submission/smtpd[1]: a").daemon(), "smtpd");
    EXPECT_EQ(parseLogLine("master[1]: a").daemon(), "master");
    EXPECT_EQ(parseLogLine("a").daemon(), "");
}

} // namespace
