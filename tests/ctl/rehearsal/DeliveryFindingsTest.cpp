#include "ctl/rehearsal/DeliveryFindings.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;
using torva::ctl::Finding;
using torva::ctl::Level;

namespace {

std::vector<LogLine> logOf(const std::vector<const char*>& lines) {
    std::vector<LogLine> log;
    for (const char* line : lines) {
        log.push_back(parseLogLine(line));
    }
    return log;
}

const Surroundings host = {{}, "mail.example.net", "$myhostname, localhost"};

Surroundings withoutQueueProgram() {
    Surroundings around = host;
    around.missing = {
        {"/usr/lib/torva-9.0/postfix-queue", {"127.0.0.1:10025", "127.0.0.1:10027"}, true}};
    return around;
}

Attempt accepted(const std::string& what) {
    Attempt attempt;
    attempt.what = what;
    attempt.messageId = "<m@x>";
    attempt.outcome.accepted = true;
    attempt.outcome.reply = {250, "250 2.0.0 Ok: queued as A"};
    return attempt;
}

Attempt refused(const std::string& what, const SmtpReply& reply, std::size_t lines) {
    Attempt attempt;
    attempt.what = what;
    attempt.client = "192.0.2.1";
    attempt.message = {"[192.0.2.1]", "sender@[192.0.2.1]", "r", ""};
    attempt.outcome.step = "RCPT";
    attempt.outcome.reply = reply;
    attempt.logEnd = lines;
    return attempt;
}

void expectFinding(const Finding& finding, Level level, const std::string& text,
                   const std::string& advice) {
    EXPECT_EQ(finding.level, level);
    EXPECT_EQ(finding.subject, "delivery");
    EXPECT_EQ(finding.text, text);
    EXPECT_EQ(finding.advice, advice);
}

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

Attempt relaying(const char* step, const SmtpReply& reply) {
    Attempt attempt = refused("relaying", reply, 0);
    attempt.relaying = true;
    attempt.outcome.step = step;
    return attempt;
}

const char* const openRelay =
    "Any stranger may send mail to anybody through this host: look at mynetworks, at "
    "smtpd_relay_restrictions and smtpd_recipient_restrictions, and at the tables that they name.";

TEST(DeliveryFindingsTest, RefusedRelayingIsFine) {
    expectFinding(
        tellAttempt(relaying("RCPT", {554, "554 5.7.1 <r>: Relay access denied"}), {}, host),
        Level::ok, "relaying: refused: 554 5.7.1 <r>: Relay access denied.", "");
}

TEST(DeliveryFindingsTest, RelayingThatEndsInAFaultProvesNothing) {
    expectFinding(tellAttempt(relaying("RCPT", {451, "451 4.3.5 x"}), {}, host), Level::warning,
                  "relaying: refused: 451 4.3.5 x.",
                  "The server failed, it did not decide: this proves nothing about relaying.");
}

TEST(DeliveryFindingsTest, RelayingThatIsRefusedForNowProvesNothing) {
    const Finding finding = tellAttempt(
        relaying("RCPT", {450, "450 4.7.1 <o[192.0.2.1]>: Client host rejected: later"}), {}, host);
    expectFinding(finding, Level::warning,
                  "relaying: refused: 450 4.7.1 <o[192.0.2.1]>: Client host rejected: later.",
                  "A refusal for now proves nothing about relaying: look whether "
                  "smtpd_relay_restrictions or smtpd_recipient_restrictions has "
                  "reject_unauth_destination, and nothing before it that permits strangers.");
}

TEST(DeliveryFindingsTest, RefusalOfAStrangersNameProvesNothingAboutRelaying) {
    const Finding finding =
        tellAttempt(relaying("RCPT", {550, "550 5.7.1 <x>: Helo command rejected: y"}), {}, host);
    EXPECT_EQ(finding.level, Level::warning);
    EXPECT_EQ(finding.advice.substr(0, finding.advice.find(':')),
              "It was not relaying that was refused, so this proves nothing about it");
}

TEST(DeliveryFindingsTest, RelayingWithoutAnAnswerProvesNothing) {
    Attempt attempt = relaying("RCPT", {});
    attempt.outcome.failure = "port 25 of x: no answer in time";
    const Finding finding = tellAttempt(attempt, {}, host);
    EXPECT_EQ(finding.text, "relaying: not accepted: port 25 of x: no answer in time.");
    EXPECT_EQ(finding.advice.substr(0, finding.advice.find('.')),
              "The server failed, it did not decide: this proves nothing about relaying");
}

TEST(DeliveryFindingsTest, AcceptedRelayingIsAWarning) {
    Attempt attempt = accepted("relaying");
    attempt.relaying = true;
    attempt.outcome.step = "message";
    expectFinding(tellAttempt(attempt, {}, host), Level::warning,
                  "relaying: accepted: 250 2.0.0 Ok: queued as A.", openRelay);
}

TEST(DeliveryFindingsTest, RelayingIsOpenWhenOnlyTheMessageIsRefused) {
    expectFinding(tellAttempt(relaying("message", {550, "550 5.7.1 spam"}), {}, host),
                  Level::warning,
                  "relaying: the recipient was accepted; the message was refused at the end of its "
                  "data: 550 5.7.1 spam.",
                  openRelay);
    expectFinding(tellAttempt(relaying("DATA", {550, "550 5.5.3 no"}), {}, host), Level::warning,
                  "relaying: the recipient was accepted; the message was refused at DATA: 550 "
                  "5.5.3 no.",
                  openRelay);
}

TEST(DeliveryFindingsTest, RelayingIsOpenWhenTheServerFallsSilentAfterTheRecipient) {
    Attempt attempt = relaying("message", {});
    attempt.outcome.failure = "port 25 of x: no answer in time";
    expectFinding(tellAttempt(attempt, {}, host), Level::warning,
                  "relaying: the recipient was accepted; port 25 of x: no answer in time.",
                  openRelay);
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
    expectFinding(tellAttempt(attempt, logOf({"postfix/pickup[7]: A: uid=0 from=<x>"}), host),
                  Level::warning,
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
                  "The service program smtpd could not start. Log: postfix/smtpd[7]: fatal: x", "");
}

TEST(DeliveryFindingsTest, PostfixThatDoesNotStartIsToldInItsOwnWords) {
    expectFinding(tellNoStart("", logOf({"postfix[6]: fatal: bad numerical configuration"})),
                  Level::warning,
                  "Postfix does not start, so no message was sent. Log: postfix[6]: fatal: bad "
                  "numerical configuration",
                  "Correct what Postfix complains of, then rehearse again.");
    expectFinding(tellNoStart("postconf: fatal: a\nb\n", {}), Level::warning,
                  "Postfix does not start, so no message was sent: postconf: fatal: a b.",
                  "Correct what Postfix complains of, then rehearse again.");
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
                  "Correct what Postfix complains of, then rehearse again.");
}

TEST(DeliveryFindingsTest, NoTextHoldsALineFeed) {
    EXPECT_EQ(tellTrouble("a\nb\n").text, "The rehearsal could not go on: a b.");
}

} // namespace
