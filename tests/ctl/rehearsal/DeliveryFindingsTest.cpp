#include "ctl/rehearsal/attempts.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;
using namespace torva::test::rehearsal;
using torva::ctl::Finding;
using torva::ctl::Level;

namespace {

TEST(DeliveryFindingsTest, DeliveredMessageIsToldWithItsPlace) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/local[2]: A: to=<root@mail.example.net>, orig_to=<root>, "
                            "relay=local, delay=0, status=sent (delivered to mailbox)",
                            "postfix/qmgr[3]: A: removed"});
    expectFinding(tellAttempt(accepted("sendmail root"), log, host), Level::ok,
                  "sendmail root: delivered to root@mail.example.net by local (delivered to "
                  "mailbox). Log: postfix/local[2]: A: to=<root@mail.example.net>, "
                  "orig_to=<root>, relay=local, delay=0, status=sent (delivered to mailbox)",
                  "");
}

TEST(DeliveryFindingsTest, DeferredMessageNamesThePanelsMissingProgram) {
    const auto log =
        logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
               "postfix/smtp[2]: A: to=<root@x>, relay=127.0.0.1[127.0.0.1]:10027, delay=1, "
               "status=deferred (lost connection with 127.0.0.1[127.0.0.1])"});
    expectFinding(tellAttempt(accepted("sendmail root"), log, withoutQueueProgram()),
                  Level::warning,
                  "sendmail root: accepted, then deferred at 127.0.0.1[127.0.0.1]:10027: lost "
                  "connection with 127.0.0.1[127.0.0.1]. Log: postfix/smtp[2]: A: to=<root@x>, "
                  "relay=127.0.0.1[127.0.0.1]:10027, delay=1, status=deferred (lost connection "
                  "with 127.0.0.1[127.0.0.1])",
                  "The panel's postfix-queue is missing: install the panel's mail programs.");
}

TEST(DeliveryFindingsTest, MailForNobodysHostComesWithTheCommandThatHelps) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/smtp[2]: A: to=<root@localhost.localdomain>, relay=none, "
                            "delay=1, status=deferred (Name service error for "
                            "name=localhost.localdomain type=MX: Host not found)"});
    const Finding finding = tellAttempt(accepted("sendmail root"), log, host);
    EXPECT_EQ(finding.level, Level::warning);
    EXPECT_EQ(finding.advice,
              "Mail for root, postmaster and mailer-daemon goes to localhost.localdomain, which "
              "is no domain of this host: postconf -e 'mydestination=$myhostname, localhost, "
              "localhost.localdomain'");
}

// The finding for a message that has this line, after which it is removed.
Finding tellLine(const std::string& line) {
    return tellAttempt(accepted("sendmail root"),
                       logOf({"postfix/cleanup[1]: A: message-id=<m@x>", line.c_str(),
                              "postfix/qmgr[3]: A: removed"}),
                       host);
}

TEST(DeliveryFindingsTest, MailThatIsThrownAwayIsAWarning) {
    const std::string discarded = "postfix/local[2]: A: to=<p@x>, relay=local, status=sent ";
    expectFinding(tellLine(discarded + "(discarded)"), Level::warning,
                  "sendmail root: accepted, then thrown away: p@x by local (discarded). Log: " +
                      discarded + "(discarded)",
                  "Nobody can read it: give this address a recipient in the aliases, then run "
                  "newaliases.");
    EXPECT_EQ(tellLine(discarded + "(delivered to file: /dev/null)").level, Level::warning);
    EXPECT_EQ(tellLine(discarded + "(delivered to file: /dev/nullable)").level, Level::ok);
    const Finding finding =
        tellLine("postfix/discard[2]: A: to=<p@x>, relay=none, status=sent (no reason)");
    EXPECT_EQ(finding.level, Level::warning);
    EXPECT_EQ(finding.advice, "Nobody can read it: look for the transport discard in "
                              "transport_maps and in the settings that name transports.");
}

TEST(DeliveryFindingsTest, OneRecipientWhoCanReadItIsEnough) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/local[2]: A: to=<a@x>, relay=local, status=sent (ok)",
                            "postfix/local[2]: A: to=<b@x>, relay=local, status=sent (discarded)",
                            "postfix/qmgr[3]: A: removed"});
    EXPECT_EQ(tellAttempt(accepted("sendmail root"), log, host).level, Level::ok);
}

TEST(DeliveryFindingsTest, MailForAnotherHostHasDoneItsPart) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/smtp[2]: A: to=<admin@example.com>, relay=none, delay=1, "
                            "status=deferred (Name service error for name=example.com type=MX: "
                            "Host not found)"});
    const Finding finding = tellAttempt(accepted("sendmail root"), log, host);
    EXPECT_EQ(finding.level, Level::ok);
    EXPECT_EQ(finding.text.substr(0, finding.text.find(" Log: ")),
              "sendmail root: leaves this host for admin@example.com (not sent: nothing leaves "
              "the private world).");
}

TEST(DeliveryFindingsTest, MailForThisHostThatLooksElsewhereIsAWarning) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/smtp[2]: A: to=<root@mail.example.net>, relay=none, delay=1, "
                            "status=deferred (Name service error for name=mail.example.net "
                            "type=MX: Host not found)"});
    EXPECT_EQ(tellAttempt(accepted("sendmail root"), log, host).level, Level::warning);
}

TEST(DeliveryFindingsTest, OneRecipientInTroubleIsEnoughForAWarning) {
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/local[2]: A: to=<a@x>, relay=local, status=sent (ok)",
                            "postfix/local[2]: A: to=<b@x>, relay=local, delay=1, status=bounced "
                            "(unknown user: \"b\")",
                            "postfix/qmgr[3]: A: removed"});
    const Finding finding = tellAttempt(accepted("sendmail root"), log, host);
    EXPECT_EQ(finding.level, Level::warning);
    EXPECT_EQ(finding.text.substr(0, finding.text.find(" Log: ")),
              "sendmail root: accepted, then bounced at local: unknown user: \"b\".");
}

TEST(DeliveryFindingsTest, RefusalIsToldWithReplyAndLine) {
    const auto log = logOf({"postfix/smtpd[2]: warning: something else",
                            "postfix/smtpd[2]: NOQUEUE: reject: RCPT from x: 550 5.1.1 <r>: User "
                            "unknown in local recipient table"});
    expectFinding(
        tellAttempt(refused("from outside to r", {550, "550 5.1.1 <r>: User unknown"}, 2), log,
                    host),
        Level::warning,
        "from outside to r: refused: 550 5.1.1 <r>: User unknown. Log: postfix/smtpd[2]: NOQUEUE: "
        "reject: RCPT from x: 550 5.1.1 <r>: User unknown in local recipient table",
        "There is no such recipient: look at the aliases and at the panel's tables.");
}

TEST(DeliveryFindingsTest, FaultOfTheServerIsToldWithItsCause) {
    const auto log = logOf({"postfix/smtpd[2]: error: open /var/spool/postfix/torva/no_relay.re: "
                            "No such file or directory",
                            "postfix/smtpd[2]: NOQUEUE: reject: RCPT from x: 451 4.3.5 y"});
    expectFinding(tellAttempt(refused("from outside to r", {451, "451 4.3.5 y"}, 2), log, host),
                  Level::warning,
                  "from outside to r: refused: 451 4.3.5 y. Log: postfix/smtpd[2]: error: open "
                  "/var/spool/postfix/torva/no_relay.re: No such file or directory",
                  "The panel writes this table; until then smtpd answers 451 to every client.");
}

TEST(DeliveryFindingsTest, LinesOfAnotherMessageAreNotTold) {
    Attempt attempt = refused("from outside to r", {550, "550 no"}, 2);
    attempt.logBegin = 1;
    const auto log = logOf({"postfix/smtpd[2]: fatal: before", "postfix/smtpd[2]: nothing",
                            "postfix/smtpd[2]: fatal: after"});
    EXPECT_EQ(tellAttempt(attempt, log, host).text, "from outside to r: refused: 550 no.");
}

TEST(DeliveryFindingsTest, WhatServersSayAtTheirStartIsNotTheReasonOfAFault) {
    const Attempt attempt = refused("from outside to r", {451, "451 4.7.1 Service unavailable"}, 4);
    const auto log = logOf({"postfix/smtpd[2]: warning: error opening chain file",
                            "postfix/smtpd[2]: connect from x[192.0.2.1]",
                            "postfix/smtpd[3]: warning: error opening chain file",
                            "postfix/smtpd[2]: warning: connect to Milter service y"});
    EXPECT_EQ(tellAttempt(attempt, log, host).text,
              "from outside to r: refused: 451 4.7.1 Service unavailable. Log: "
              "postfix/smtpd[2]: warning: connect to Milter service y");
}

TEST(DeliveryFindingsTest, MessageThatTookNoStepWasNotSent) {
    Attempt attempt;
    attempt.what = "from outside to r";
    attempt.outcome.failure = "no network to the outside: ip: Error: Unknown device type";
    expectFinding(tellAttempt(attempt, {}, host), Level::warning,
                  "from outside to r: not sent: no network to the outside: ip: Error: Unknown "
                  "device type.",
                  "This tells nothing about mail from outside: rehearse where the kernel has "
                  "veth(4).");
}

TEST(DeliveryFindingsTest, ServerThatDoesNotAnswerIsToldWithItsLastWordsFromAnywhere) {
    Attempt attempt;
    attempt.what = "from outside to r";
    attempt.outcome.step = "greeting";
    attempt.outcome.failure = "port 25 of x: its server cannot start";
    const auto log =
        logOf({"postfix/smtpd[7]: fatal: no SASL authentication mechanisms",
               "postfix/master[1]: warning: process /a/smtpd pid 7 exit status 1",
               "postfix/master[1]: warning: /a/smtpd: bad command startup -- throttling"});
    expectFinding(tellAttempt(attempt, log, host), Level::warning,
                  "from outside to r: not accepted: port 25 of x: its server cannot start. Log: "
                  "postfix/smtpd[7]: fatal: no SASL authentication mechanisms",
                  "Install a SASL mechanism (Debian: libsasl2-modules); without one smtpd ends "
                  "at once.");
}

TEST(DeliveryFindingsTest, MessageWithoutATraceIsToldSo) {
    expectFinding(tellAttempt(accepted("sendmail root"), {}, host), Level::warning,
                  "sendmail root: accepted, but not taken into the queue.",
                  "The service pickup takes what sendmail has left, cleanup puts it into the "
                  "queue: look at both in master.cf.");
}

TEST(DeliveryFindingsTest, MessageThatCleanupDoesNotTakeIsToldWithItsReason) {
    const std::vector<LogLine> log =
        logOf({"postfix/smtpd[6]: warning: of another connection",
               "postfix/cleanup[7]: warning: connect to Milter service inet:127.0.0.1:8891: "
               "Connection refused"});
    expectFinding(tellAttempt(accepted("sendmail root"), log, host), Level::warning,
                  "sendmail root: accepted, but not taken into the queue. Log: "
                  "postfix/cleanup[7]: warning: connect to Milter service "
                  "inet:127.0.0.1:8891: Connection refused",
                  "Only Postfix is started here. When another program listens there on the "
                  "host, this tells nothing about it.");
}

TEST(DeliveryFindingsTest, MessageThatCleanupHasNotFinishedIsToldSo) {
    const Finding finding = tellAttempt(accepted("sendmail root"),
                                        logOf({"postfix/pickup[7]: A: uid=0 from=<root>"}), host);
    EXPECT_EQ(finding.text, "sendmail root: accepted, but not taken into the queue in time. Log: "
                            "postfix/pickup[7]: A: uid=0 from=<root>");
    EXPECT_EQ(finding.advice.substr(0, finding.advice.find(':')),
              "The service cleanup has it, and waits");
}

TEST(DeliveryFindingsTest, MessageThatCannotBeFollowedIsToldSo) {
    Attempt attempt = accepted("from outside to r");
    attempt.client = "192.0.2.1";
    attempt.outcome.reply = {250, "250 thanks"};
    const auto log =
        logOf({"postfix/pickup[7]: A: uid=0 from=<x>", "postfix/cleanup[7]: warning: of another"});
    expectFinding(tellAttempt(attempt, log, host), Level::warning,
                  "from outside to r: accepted: 250 thanks; what became of it is not known, "
                  "because the reply has no queue id and the log has no such Message-ID.",
                  "Send a message of your own, and look for its recipient in the log of the host.");
}

TEST(DeliveryFindingsTest, MissingProgramIsNamedWithItsServices) {
    expectFinding(tellMissing(withoutQueueProgram().missing[0]), Level::warning,
                  "The panel's /usr/lib/torva-9.0/postfix-queue is missing: services "
                  "127.0.0.1:10025 and 127.0.0.1:10027 of master.cf cannot do without it.",
                  "Install the panel's mail programs.");
    expectFinding(tellMissing({"/a/local", {"local"}, false}), Level::warning,
                  "/a/local is missing: service local of master.cf cannot do without it.",
                  "Look at daemon_directory, and whether Postfix is installed whole.");
}

TEST(DeliveryFindingsTest, ServiceThatCouldNotStartIsTold) {
    expectFinding(tellFault({"smtpd", true, parseLogLine("postfix/smtpd[7]: fatal: x")}),
                  Level::warning,
                  "The service program smtpd could not start. Log: postfix/smtpd[7]: fatal: x",
                  "Correct what it complains of, then rehearse again.");
}

TEST(DeliveryFindingsTest, PostfixThatDoesNotStartIsToldInItsOwnWords) {
    expectFinding(tellNoStart("", logOf({"postfix[6]: fatal: bad numerical configuration"})),
                  Level::warning,
                  "Postfix does not start, so no message was sent. Log: postfix[6]: fatal: bad "
                  "numerical configuration",
                  "Correct what it complains of, then rehearse again.");
    expectFinding(tellNoStart("postconf: fatal: a\nb\n", {}), Level::warning,
                  "Postfix does not start, so no message was sent: postconf: fatal: a b.",
                  "Correct what it complains of, then rehearse again.");
}

TEST(DeliveryFindingsTest, PostfixThatIsStillStartingIsToldWithTheTime) {
    const char* const advice = "Rehearse again when the machine is less busy.";
    expectFinding(tellSlowStart(std::chrono::seconds(8), {}), Level::warning,
                  "Postfix did not start within 8 seconds, so no message was sent.", advice);
    expectFinding(tellSlowStart(std::chrono::seconds(8), logOf({"postfix[6]: fatal: x"})),
                  Level::warning,
                  "Postfix did not start within 8 seconds, so no message was sent. Log: "
                  "postfix[6]: fatal: x",
                  advice);
}

TEST(DeliveryFindingsTest, PostfixThatDoesNotStartIsNotToldInItsWarnings) {
    const std::string said =
        "/usr/sbin/postconf: warning: /etc/postfix/main.cf: support for parameter "
        "\"smtpd_use_tls\" will be removed; instead, specify \"smtpd_tls_security_level\"\n"
        "/usr/sbin/postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for "
        "details\n"
        "postfix: fatal: a\n";
    const auto log = logOf({"postfix/postfix-script[6]: warning: not owned by root: /x"});
    expectFinding(tellNoStart(said, log), Level::warning,
                  "Postfix does not start, so no message was sent: postfix: fatal: a.",
                  "Correct what it complains of, then rehearse again.");
}

TEST(DeliveryFindingsTest, NoTextHoldsALineFeed) {
    EXPECT_EQ(tellTrouble("a\nb\n").text, "The rehearsal could not go on: a b.");
}

} // namespace
