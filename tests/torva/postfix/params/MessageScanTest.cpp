#include "torva/postfix/params/MessageScan.h"

#include <gtest/gtest.h>

using torva::mail::postfix::reportsFailure;
using torva::mail::postfix::Severity;

namespace {

struct MessageCase {
    const char* name;
    const char* text;
    bool lenient; ///< wanted in lenient mode
    bool strict;  ///< wanted in strict mode
};

void PrintTo(const MessageCase& tested, std::ostream* out) {
    *out << tested.name;
}

const MessageCase messageCases[] = {
    {"EmptyText", "", false, false},
    {"OnlyLineEnds", "\n\n\n", false, false},
    {"LineWithoutColon", "no colon here", false, false},
    {"ColonAtTheEndOfTheLine", "postconf:", false, false},
    {"NothingButBlanksAfterTheColon", "postconf:    ", false, false},
    {"LineWithoutASecondColonAfterTheSeverityWord", "postconf: fatal", false, false},
    {"Warning", "postconf: warning: /etc/postfix/main.cf: unused parameter: x=y\n", false, false},
    {"Fatal", "postconf: fatal: open /etc/postfix/main.cf: No such file or directory\n", true,
     true},
    {"Panic", "postconf: panic: x", true, true},
    {"Error", "postmap: error: x", true, true},
    {"ManyBlanksBeforeTheWord", "postconf:      fatal: x", true, true},
    {"NoBlankBeforeTheWord", "postconf:fatal: x", true, true},
    {"TabBeforeTheWordIsPartOfIt", "postconf:\tfatal: x", false, true},
    {"UpperCaseIsAnotherWord", "postconf: FATAL: x", false, true},
    {"LongerWordIsAnotherWord", "postconf: fatality: x", false, true},
    {"FatalWithABlankBeforeItsColon", "postconf: fatal : x", false, true},
    {"ThirdFieldDoesNotCount", "postconf: warning: fatal: x", false, false},
    {"WordOfAnotherKind", "postconf: info: x", false, true},
    {"WarningsBeforeAFatal", "a: warning: x\nb: warning: y\nc: fatal: z", true, true},
    {"FatalWithoutANameAfterAnotherLine", "a: warning: x\n: fatal: y", true, true},
    {"FatalBeforeWarnings", "a: fatal: x\nb: warning: y\n", true, true},
    {"WordIsNotJoinedOverLines", "postconf:\nfatal: x", false, false},
    {"TextEndsInsideTheWord", "postconf: fata", false, false},
    {"LineOfColons", "::::", false, true},
    // Of Postfix 3.10 and 3.11.
    {"ParameterThatWillBeRemoved",
     "postconf: warning: /etc/postfix/main.cf: support for parameter \"smtpd_use_tls\" will be "
     "removed; instead, specify \"smtpd_tls_security_level\"\n",
     false, false},
    {"ReferenceToDeprecationReadme",
     "postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for details\n", false,
     false},
    {"ParameterOfALaterVersion", "postconf: warning: non_bdb_migration_level: unknown parameter\n",
     false, false},
    {"TypeOfTablesThatIsDeprecated",
     "postmap: warning: /t: hash/btree support is deprecated.  Please switch to cdb or lmdb.\n"
     "postmap: warning: See /usr/share/doc/postfix/NON_BERKELEYDB_README.gz for more info.\n",
     false, false},
    {"RedirectedTable", "postmap: redirecting hash:/t to lmdb:/t\n", false, true},
    {"TypeOfTablesThatIsMissing",
     "postmap: warning: unsupported dictionary type: hash. Is the postfix-hash package "
     "installed?\npostmap: fatal: unsupported map type: hash\n",
     true, true},
    {"TableThatIsOnlyWrittenWhole",
     "postmap: redirecting hash:/t to cdb:/t\npostmap: fatal: unsupported non-bulk change "
     "request\n",
     true, true},
};

class MessageScanTest : public testing::TestWithParam<MessageCase> {};

TEST_P(MessageScanTest, LenientMode) {
    EXPECT_EQ(reportsFailure(GetParam().text, Severity::lenient), GetParam().lenient);
}

TEST_P(MessageScanTest, StrictMode) {
    EXPECT_EQ(reportsFailure(GetParam().text, Severity::strict), GetParam().strict);
}

INSTANTIATE_TEST_SUITE_P(Messages, MessageScanTest, testing::ValuesIn(messageCases),
                         [](const auto& tested) { return std::string(tested.param.name); });

} // namespace
