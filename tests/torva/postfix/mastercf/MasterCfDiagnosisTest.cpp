#include "torva/postfix/mastercf/MasterCfDiagnosis.h"

#include "torva/postfix/mastercf/MasterCfParser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace torva::mail::postfix {
namespace {

const std::string good = "smtp inet n - y - - smtpd";

std::string told(const std::string& text) {
    const auto diagnosis = diagnoseMasterCf(text);
    return diagnosis ? diagnosis->text() : "taken";
}

bool isParsed(const std::string& text) {
    MasterCfLines lines;
    return !text.empty() && parseMasterCf(text.data(), text.data() + text.size(), lines);
}

struct Case {
    std::string text;
    std::string told;
};

TEST(MasterCfDiagnosisTest, NamesLineAndReason) {
    const std::vector<Case> cases{
        {good, "taken"},
        {good + "\n", "taken"},
        {"", "line 1: the file is empty"},
        {"# 1\n\nsmtp inet n -\n\n   Y - - smtpd\n", "line 5: chroot must be y, n or -, not \"Y\""},
        {"# 1\nSMTP inet\n",
         "line 2: \"SMTP\" in a service name, which holds a-z, 0-9 and -_:. only"},
        {"sMtp inet n - y - - smtpd",
         "line 1: \"sMtp\" in a service name, which holds a-z, 0-9 and -_:. only"},
        {"[::1]:25 inet n - y - - smtpd",
         "line 1: \"[::1]:25\" in a service name, which holds a-z, 0-9 and -_:. only"},
        {"postlog unix-dgram n - n - 1 postlogd",
         "line 1: type must be inet, unix or fifo, not \"unix-dgram\""},
        {"smtpd pass - - n - - smtpd", "line 1: type must be inet, unix or fifo, not \"pass\""},
        {"smtp\n", "line 1: type must be inet, unix or fifo, not the end of the entry"},
        {good + " # the last\n", "line 1: a comment after the last word of an entry"},
        {good + "\n  -o a=b # the last\n", "line 2: a comment after the last word of an entry"},
        {"a unix - - - 4294967296 - b\n", "line 1: wakeup 4294967296 is too great"},
        {"a unix - - - - 99999999999 b\n", "line 1: maxproc 99999999999 is too great"},
        {"a unix - - - ? - b\n", "line 1: wakeup must be a number or -, not \"?\""},
        {"a unix - - - - ? b\n", "line 1: maxproc must be a number or -, not \"?\""},
        {"a unix x - - - - b\n", "line 1: private must be y, n or -, not \"x\""},
        {"a unix - x - - - b\n", "line 1: unpriv must be y, n or -, not \"x\""},
        {"a unixx - - - - - b\n", "line 1: type must be inet, unix or fifo, not \"unixx\""},
        {"a unix-x - - - - b\n", "line 1: type must be inet, unix or fifo, not \"unix-x\""},
        {"a unix--x - - - b\n", "line 1: type must be inet, unix or fifo, not \"unix--x\""},
        {"a unix---x - - b\n", "line 1: wakeup must be a number or -, not \"x\""},
        {"a unix - - - - -\n", "line 1: a command must follow maxproc, not the end of the entry"},
        {"\n -o a=b\n", "line 2: \"-o\" continues no entry"},
        {good + " \xc3\xa9\n", "line 1: \"??\" holds a character that is not printable ASCII"},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(told(one.text), one.told) << one.text;
    }
}

TEST(MasterCfDiagnosisTest, RefusesWhatTheParserRefusesAndNothingElse) {
    const std::vector<std::string> pieces{
        good, "a unix", " - ",        "-",    "n",    "\t",  "\r",   "\n", "\n ", "\n#",  "#",
        "7",  "60?",    "4294967296", "inet", "pass", "x=y", " -o ", "A",  "[",   "\xe9", "smtpd"};
    std::mt19937 chance(20);
    int refused = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string text = round % 2 == 0 ? good + "\n" : "s fifo n n n 1? 2 b # e\n  f\n";
        for (int change = 0; change < 3; ++change) {
            text.insert(chance() % (text.size() + 1), pieces[chance() % pieces.size()]);
        }
        const auto diagnosis = diagnoseMasterCf(text);
        EXPECT_EQ(!diagnosis, isParsed(text)) << text;
        refused += diagnosis ? 1 : 0;
        if (diagnosis) {
            EXPECT_GE(diagnosis->line, 1U);
            EXPECT_EQ(diagnosis->reason.find('\n'), std::string::npos) << text;
        }
    }
    EXPECT_GT(refused, 1000);
    EXPECT_LT(refused, 4500);
}

} // namespace
} // namespace torva::mail::postfix
