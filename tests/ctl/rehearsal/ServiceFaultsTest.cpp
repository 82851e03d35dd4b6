#include "ctl/rehearsal/ServiceFaults.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

std::vector<LogLine> logWith(const std::vector<const char*>& lines) {
    std::vector<LogLine> log;
    for (const char* line : lines) {
        log.push_back(parseLogLine(line));
    }
    return log;
}

TEST(ServiceFaultsTest, ServiceThatCannotStartIsToldWithItsOwnLastWords) {
    const std::vector<ServiceFault> faults = findServiceFaults(logWith(
        {"postfix/smtpd[7]: warning: no mechanisms", "postfix/smtpd[7]: fatal: no SASL",
         "postfix/master[1]: warning: process /usr/lib/postfix/sbin/smtpd pid 7 exit status 1",
         "postfix/master[1]: warning: /usr/lib/postfix/sbin/smtpd: bad command startup -- "
         "throttling"}));
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].daemon, "smtpd");
    EXPECT_TRUE(faults[0].atStart);
    EXPECT_EQ(faults[0].why.whole(), "postfix/smtpd[7]: fatal: no SASL");
}

TEST(ServiceFaultsTest, ServiceIsToldOnceHoweverOftenItEnds) {
    EXPECT_EQ(findServiceFaults(
                  logWith({"postfix/master[1]: warning: process /a/smtpd pid 7 exit status 1",
                           "postfix/master[1]: warning: process /a/smtpd pid 8 exit status 1"}))
                  .size(),
              1U);
}

TEST(ServiceFaultsTest, DeathBySignalIsToldInTheWordsOfMaster) {
    const std::vector<ServiceFault> faults = findServiceFaults(
        logWith({"postfix/master[1]: warning: process /a/local pid 9 killed by signal 11"}));
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_FALSE(faults[0].atStart);
    EXPECT_EQ(faults[0].why.text, "warning: process /a/local pid 9 killed by signal 11");
}

TEST(ServiceFaultsTest, OthersThanMasterTellOfNoEnd) {
    EXPECT_TRUE(
        findServiceFaults(logWith({"postfix/local[2]: warning: process /a/x pid 9 exit status 1"}))
            .empty());
}

TEST(ServiceFaultsTest, HeldBackStartIsKnownByTheNameOfTheProgram) {
    const auto log =
        logWith({"postfix/master[1]: warning: /a/smtpd: bad command startup -- throttling"});
    EXPECT_TRUE(startIsThrottled(log, "smtpd"));
    EXPECT_FALSE(startIsThrottled(log, "smtp"));
}

TEST(ServiceFaultsTest, WorstLineIsTheFirstOfTheHighestKind) {
    const auto log = logWith({"a[1]: warning: w1", "a[1]: error: e1", "a[1]: error: e2",
                              "a[1]: text with fatal: inside"});
    EXPECT_EQ(worstLine(log).text, "error: e1");
    EXPECT_EQ(worstLine(log, 2).text, "error: e2");
    EXPECT_EQ(worstLine(logWith({"a[1]: error: e", "a[1]: fatal: f"})).text, "fatal: f");
    EXPECT_EQ(worstLine(logWith({"a[1]: fine"})).text, "");
}

TEST(ServiceFaultsTest, WarningsAboutWhatALaterPostfixDropsAreAboutNoFailure) {
    const auto log = logWith(
        {"postfix/local[1]: warning: /etc/aliases: hash/btree support is deprecated.  Please "
         "switch to cdb or lmdb.",
         "postfix/local[1]: warning: See /usr/share/doc/postfix/NON_BERKELEYDB_README.gz for more "
         "info.",
         "postconf: warning: /etc/postfix/main.cf: support for parameter \"smtp_use_tls\" will be "
         "removed; instead, specify \"smtp_tls_security_level\"",
         "postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for details"});
    EXPECT_EQ(worstLine(log).text, "");
    auto withReason = log;
    withReason.push_back(parseLogLine("postfix/local[1]: warning: no such mailbox"));
    EXPECT_EQ(worstLine(withReason).text, "warning: no such mailbox");
}

TEST(ServiceFaultsTest, ReasonsOfAFailureAreNotItsWarnings) {
    EXPECT_EQ(reasonsIn("postconf: warning: a\npostconf: fatal: b\nand more\n"),
              "postconf: fatal: b and more");
    EXPECT_EQ(reasonsIn("postconf: warning: a\npostconf: warning: b\n"),
              "postconf: warning: a postconf: warning: b");
    EXPECT_EQ(reasonsIn(""), "");
}

} // namespace
