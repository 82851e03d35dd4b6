#include "ctl/rehearsal/attempts.h"

using namespace torva::ctl::rehearsal;
using namespace torva::test::rehearsal;
using torva::ctl::Finding;
using torva::ctl::Level;

namespace {

Attempt relaying(const char* step, const SmtpReply& reply) {
    Attempt attempt = refused("relaying", reply, 0);
    attempt.relaying = true;
    attempt.outcome.step = step;
    return attempt;
}

const char* const openRelay =
    "Any stranger may send mail to anybody through this host: look at mynetworks, at "
    "smtpd_relay_restrictions and smtpd_recipient_restrictions, and at the tables that they name.";

TEST(RelayFindingsTest, RefusedRelayingIsFine) {
    expectFinding(
        tellAttempt(relaying("RCPT", {554, "554 5.7.1 <r>: Relay access denied"}), {}, host),
        Level::ok, "relaying: refused: 554 5.7.1 <r>: Relay access denied.", "");
}

TEST(RelayFindingsTest, RelayingThatEndsInAFaultProvesNothing) {
    expectFinding(tellAttempt(relaying("RCPT", {451, "451 4.3.5 x"}), {}, host), Level::warning,
                  "relaying: refused: 451 4.3.5 x.",
                  "The server failed, it did not decide: this proves nothing about relaying. Look "
                  "for these words in the settings (postconf -n), and in the tables and programs "
                  "that they name.");
}

TEST(RelayFindingsTest, RelayingThatIsRefusedForNowProvesNothing) {
    const Finding finding = tellAttempt(
        relaying("RCPT", {450, "450 4.7.1 <o[192.0.2.1]>: Client host rejected: later"}), {}, host);
    expectFinding(finding, Level::warning,
                  "relaying: refused: 450 4.7.1 <o[192.0.2.1]>: Client host rejected: later.",
                  "A refusal for now proves nothing about relaying: look whether "
                  "smtpd_relay_restrictions or smtpd_recipient_restrictions has "
                  "reject_unauth_destination, and nothing before it that permits strangers. A "
                  "restriction refuses this client: look at smtpd_client_restrictions and "
                  "smtpd_recipient_restrictions, and at their tables.");
    const Finding unknown = tellAttempt(relaying("RCPT", {450, "450 not now"}), {}, host);
    EXPECT_EQ(unknown.advice, finding.advice.substr(0, unknown.advice.size()));
}

TEST(RelayFindingsTest, RefusalOfAStrangersNameProvesNothingAboutRelaying) {
    const Finding finding =
        tellAttempt(relaying("RCPT", {550, "550 5.7.1 <x>: Helo command rejected: y"}), {}, host);
    EXPECT_EQ(finding.level, Level::warning);
    EXPECT_EQ(finding.advice.substr(0, finding.advice.find(':')),
              "It was not relaying that was refused, so this proves nothing about it");
}

TEST(RelayFindingsTest, RelayingWithoutAnAnswerProvesNothing) {
    Attempt attempt = relaying("RCPT", {});
    attempt.outcome.failure = "port 25 of x: no answer in time";
    const Finding finding = tellAttempt(attempt, {}, host);
    EXPECT_EQ(finding.text, "relaying: not accepted: port 25 of x: no answer in time.");
    EXPECT_EQ(finding.advice.substr(0, finding.advice.find('.')),
              "The server failed, it did not decide: this proves nothing about relaying");
}

TEST(RelayFindingsTest, AcceptedRelayingIsAWarning) {
    Attempt attempt = accepted("relaying");
    attempt.relaying = true;
    attempt.outcome.step = "message";
    expectFinding(tellAttempt(attempt, {}, host), Level::warning,
                  "relaying: accepted: 250 2.0.0 Ok: queued as A.", openRelay);
}

TEST(RelayFindingsTest, RelayingIsOpenWhenOnlyTheMessageIsRefused) {
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

TEST(RelayFindingsTest, RelayingIsOpenWhenTheServerFallsSilentAfterTheRecipient) {
    Attempt attempt = relaying("message", {});
    attempt.outcome.failure = "port 25 of x: no answer in time";
    expectFinding(tellAttempt(attempt, {}, host), Level::warning,
                  "relaying: the recipient was accepted; port 25 of x: no answer in time.",
                  openRelay);
}

} // namespace
