#include "ctl/report/InstanceAdvice.h"
#include "ctl/report/JsonText.h"
#include "ctl/report/Printable.h"
#include "ctl/report/Wrap.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace torva::ctl {
namespace {

TEST(ReportTextTest, LinesAreBrokenAtBlanks) {
    EXPECT_EQ(wrapped("one two three", 12, 4), "one two\n    three");
    EXPECT_EQ(wrapped("one two three", 80, 4), "one two three");
    EXPECT_EQ(wrapped("", 80, 4), "");
}

TEST(ReportTextTest, LongWordStaysWhole) {
    EXPECT_EQ(wrapped("a /very/long/path b", 10, 2), "a\n  /very/long/path\n  b");
}

TEST(ReportTextTest, EveryByteComesBackFromText) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(bytesOfText(textOfBytes(bytes)), bytes);
    EXPECT_EQ(textOfBytes("\xe9"), "\xc3\xa9");
}

TEST(ReportTextTest, ControlCharactersAreShown) {
    EXPECT_EQ(printable(std::string("a\0b\x1b[31m\x07\r\x7f", 11)),
              "a\\x00b\\x1b[31m\\x07\\x0d\\x7f");
    // "CSI" in Latin-1 and in UTF-8.
    EXPECT_EQ(printable("\x9b\x31m \xc2\x9b\x31m"), "\\x9b1m \\xc2\\x9b1m");
    EXPECT_EQ(printable("\xe2\x82\x1b"), "\xe2\\x82\\x1b");
}

TEST(ReportTextTest, OtherCharactersStay) {
    const std::string text = "a\tb\n\\x \xc3\x9b \xe2\x82\x9b \xf0\x9f\x98\x9b \xe9 \xc2\xa0";
    EXPECT_EQ(printable(text), text);
}

TEST(ReportTextTest, OneLineHasNoLineFeed) {
    EXPECT_EQ(oneLine("a\nb\tc"), "a\\x0ab\tc");
}

TEST(ReportTextTest, AdviceForAnInstanceNamesIt) {
    const std::string directory = "/etc/postfix-out";
    const struct {
        const char* advice;
        const char* wanted;
    } cases[] = {
        {"postfix reload", "MAIL_CONFIG=/etc/postfix-out postfix reload"},
        {"postfix stop && postfix start",
         "MAIL_CONFIG=/etc/postfix-out postfix stop && MAIL_CONFIG=/etc/postfix-out postfix start"},
        {"correct it: postconf -X queue_directory restores the built-in one",
         "correct it: MAIL_CONFIG=/etc/postfix-out postconf -X queue_directory restores the "
         "built-in "
         "one"},
        {"make room, then torva-postfixctl rollback",
         "make room, then MAIL_CONFIG=/etc/postfix-out torva-postfixctl rollback"},
        {"write /etc/none and run postmap hash:/etc/none",
         "write /etc/none and run MAIL_CONFIG=/etc/postfix-out postmap hash:/etc/none"},
        {"sudo torva-postfixctl apply", "sudo MAIL_CONFIG=/etc/postfix-out torva-postfixctl apply"},
        {"apt-get install postfix postfix-pcre", "apt-get install postfix postfix-pcre"},
        {"MAIL_CONFIG=/etc/postfix torva-postfixctl rollback",
         "MAIL_CONFIG=/etc/postfix torva-postfixctl rollback"},
        {"reinstall Postfix's configuration", "reinstall Postfix's configuration"},
        {"", ""},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(adviceFor(directory, one.advice), one.wanted);
        EXPECT_EQ(adviceFor("", one.advice), one.advice);
    }
    EXPECT_EQ(adviceFor("/etc/it's", "postfix start"), "MAIL_CONFIG='/etc/it'\\''s' postfix start");
}

TEST(ReportTextTest, OtherTextIsRefused) {
    EXPECT_THROW(bytesOfText("\xe2\x82\xac"), std::runtime_error);
    EXPECT_THROW(bytesOfText("\xc3"), std::runtime_error);
}

} // namespace
} // namespace torva::ctl
