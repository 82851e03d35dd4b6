// The words are those of Postfix 3.10 and 3.11 as Debian has them.
#include "ctl/host/ToolWords.h"
#include "ctl/host/Program.h"

#include <gtest/gtest.h>

using namespace torva::ctl;

namespace {

using Lines = std::vector<std::string>;

const std::string smtpdWords = "support for parameter \"smtpd_use_tls\" will be removed; instead, "
                               "specify \"smtpd_tls_security_level\"";
const std::string smtpWords = "support for parameter \"smtp_use_tls\" will be removed; instead, "
                              "specify \"smtp_tls_security_level\"";
const std::string otherWords = "support for parameter \"smtpd_enforce_tls\" will be removed; "
                               "instead, specify \"smtpd_tls_security_level\"";
const std::string mainCf = "postconf: warning: /etc/postfix/main.cf: ";
const std::string readme =
    "postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for details";
const std::string hashWarning = "postmap: warning: /var/spool/postfix/torva/virtual: hash/btree "
                                "support is deprecated.  Please switch to cdb or lmdb.";
const std::string hashReadme = "postmap: warning: See "
                               "/usr/share/doc/postfix/NON_BERKELEYDB_README.gz for more info.";

ToolResult failed(const std::string& error, const std::string& output = "") {
    ToolResult result;
    result.status = 1 << 8;
    result.error = error;
    result.output = output;
    return result;
}

TEST(ToolWordsTest, WarningIsTheSecondWordOfALine) {
    for (const std::string& line :
         {mainCf + smtpWords, readme, hashWarning, hashReadme,
          std::string("/usr/sbin/postconf: warning: x"), std::string("postfix/postlog: warning: x"),
          std::string("postfix[7]: warning: fatal: x")}) {
        EXPECT_TRUE(isWarning(line)) << line;
    }
    for (const char* line :
         {"", "warning: x", "postconf: fatal: warning: x", "postconf: Warning: x",
          "postconf: warning x", "open x: warning: y", "postmap: redirecting hash:/a to lmdb:/a",
          "postfix: Postfix is using backwards-compatible default settings"}) {
        EXPECT_FALSE(isWarning(line)) << line;
    }
}

TEST(ToolWordsTest, ReasonOfAFailureIsNoneOfTheWarnings) {
    EXPECT_EQ(reasonIn(mainCf + smtpWords + "\n" + readme + "\npostconf: fatal: x\nmore\n"),
              "postconf: fatal: x; more");
    EXPECT_EQ(reasonIn("postmap: warning: a\r\n\npostmap: warning: b\n"),
              "postmap: warning: a; postmap: warning: b");
    EXPECT_EQ(reasonIn("\n"), "");
}

TEST(ToolWordsTest, FailedToolIsToldWithoutItsWarnings) {
    EXPECT_EQ(wordsOf(failed(hashWarning + "\n" + hashReadme + "\npostmap: fatal: open x\n")),
              "postmap: fatal: open x");
    EXPECT_EQ(wordsOf(failed("", mainCf + smtpWords + "\nout\n")), "out");
    EXPECT_EQ(wordsOf(failed("")), "exit status 1");
}

TEST(ToolWordsTest, DroppedParametersAreToldOnceInTheirOrder) {
    const auto dropped =
        droppedParameters(mainCf + smtpWords + "\n" + mainCf + smtpdWords + "\n" + readme + "\n" +
                          "/usr/sbin/postconf: warning: /x/main.cf: " + smtpWords + "\n");
    ASSERT_EQ(dropped.size(), 2U);
    EXPECT_EQ(dropped[0].name, "smtp_use_tls");
    EXPECT_EQ(dropped[0].words, smtpWords);
    EXPECT_EQ(dropped[1].name, "smtpd_use_tls");
    EXPECT_EQ(dropped[1].words, smtpdWords);
}

TEST(ToolWordsTest, NothingElseIsADroppedParameter) {
    for (const char* line : {"postconf: warning: /etc/postfix/main.cf: unused parameter: x=y",
                             "postconf: fatal: support for parameter \"x\" will be removed",
                             "postconf: warning: \" will be removed support for parameter \"",
                             "postconf: warning: support for parameter \"\" will be removed", ""}) {
        EXPECT_TRUE(droppedParameters(line).empty()) << line;
    }
}

TEST(ToolWordsTest, DroppedTableTypeIsToldWithoutThePathOfTheTable) {
    EXPECT_EQ(droppedTableType(hashWarning + "\n" + hashReadme + "\n"),
              "hash/btree support is deprecated. Please switch to cdb or lmdb.");
    EXPECT_EQ(droppedTableType(hashReadme + "\npostmap: fatal: x: hash support is deprecated"), "");
}

TEST(ToolWordsTest, NewsAboutTheRunsParametersAndDebiansCopiesNeedNoCorrection) {
    const std::string prefix = "/usr/sbin/postconf: warning: /etc/postfix/main.cf: ";
    EXPECT_EQ(withoutNews({prefix + smtpWords, prefix + smtpdWords, readme,
                           "updating /etc/localtime => /var/spool/postfix//etc/localtime"}),
              Lines());
}

TEST(ToolWordsTest, ComplaintsAboutOtherThingsStay) {
    const Lines others{"postfix/postfix-script: warning: not owned by root: /var/spool/postfix/.",
                       "postfix: Postfix is using backwards-compatible default settings",
                       "postconf: warning: /etc/postfix/main.cf: unused parameter: x=y",
                       "updating the moon", "postfix: fatal: x"};
    EXPECT_EQ(withoutNews(others), others);
}

TEST(ToolWordsTest, DroppedParameterOfTheAdministratorStaysWithItsReference) {
    EXPECT_EQ(withoutNews({mainCf + smtpWords, mainCf + otherWords, readme}),
              (Lines{mainCf + otherWords, readme}));
}

} // namespace
