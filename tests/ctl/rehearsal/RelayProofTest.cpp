#include "ctl/rehearsal/RelayProof.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

struct Refusal {
    const char* name;
    const char* step;
    const char* reply;
    RelayProof proof;
};

void PrintTo(const Refusal& tested, std::ostream* out) {
    *out << tested.name;
}

const Refusal refusals[] = {
    {"RelayAccessDenied", "RCPT", "554 5.7.1 <r@x>: Relay access denied", RelayProof::refused},
    {"RelayAccessDeferred", "RCPT", "454 4.7.1 <r@x>: Relay access denied", RelayProof::refused},
    {"RelayAccessDeferredWithAnotherCode", "RCPT", "451 4.7.1 <r@x>: Relay access denied",
     RelayProof::refused},
    {"EveryRecipientIsRejected", "RCPT",
     "554 5.7.1 <r@x>: Recipient address rejected: Access denied", RelayProof::refused},
    {"WithoutEnhancedStatus", "RCPT", "550 <r@x>: Recipient address rejected: Access denied",
     RelayProof::refused},
    {"FooterBehindIt", "RCPT", "554 5.7.1 <r@x>: Relay access denied For help call 5",
     RelayProof::refused},
    {"Client", "RCPT", "554 5.7.1 <o[192.0.2.1]>: Client host rejected: Access denied",
     RelayProof::none},
    {"ClientOnAList", "RCPT", "554 5.7.1 Service unavailable; Client host [192.0.2.1] blocked",
     RelayProof::none},
    {"Helo", "RCPT", "550 5.7.1 <[192.0.2.1]>: Helo command rejected: Host not found",
     RelayProof::none},
    {"Sender", "RCPT", "550 5.1.8 <s@x>: Sender address rejected: Domain not found",
     RelayProof::none},
    {"WordsOfRelayingInsideOthers", "RCPT",
     "550 5.7.1 <[192.0.2.1]>: Helo command rejected: <r@x>: Relay access denied",
     RelayProof::none},
    {"PolicyServer", "RCPT",
     "550 5.7.23 <r@x>: Recipient address rejected: SPF fail - not authorized", RelayProof::none},
    {"UnknownUser", "RCPT",
     "550 5.1.1 <r@x>: Recipient address rejected: User unknown in relay recipient table",
     RelayProof::none},
    {"UnknownDomain", "RCPT", "550 5.1.2 <r@x>: Recipient address rejected: Domain not found",
     RelayProof::none},
    {"MilterOrProxy", "RCPT", "550 5.7.1 Command rejected", RelayProof::none},
    {"WithoutTls", "MAIL", "530 5.7.0 Must issue a STARTTLS command first", RelayProof::none},
    {"RecipientWordsBeforeRcpt", "MAIL", "554 5.7.1 <r@x>: Relay access denied", RelayProof::none},
    {"Greeting", "greeting", "554 5.7.1 go away", RelayProof::none},
    {"GreylistedClient", "RCPT", "450 4.7.1 <o[192.0.2.1]>: Client host rejected: greylisted",
     RelayProof::noneForNow},
    {"GreylistedRecipient", "RCPT", "450 4.2.0 <r@x>: Recipient address rejected: Greylisted",
     RelayProof::noneForNow},
    {"FullDisk", "MAIL", "452 4.3.1 Insufficient system storage", RelayProof::noneForNow},
    {"TooMuchMail", "MAIL", "450 4.7.1 Error: too much mail from 192.0.2.1",
     RelayProof::noneForNow},
    {"Fault", "RCPT", "451 4.3.5 Server configuration error", RelayProof::noneByFault},
    {"Shutdown", "EHLO", "421 4.3.0 bye", RelayProof::noneByFault},
    {"RefusedAtData", "DATA", "550 5.5.3 <DATA>: Data command rejected", RelayProof::accepted},
    {"RefusedAtTheEndOfTheData", "message", "550 5.7.1 spam", RelayProof::accepted},
    {"TooBig", "message", "552 5.3.4 Error: message file too big", RelayProof::accepted},
    {"FaultAtTheEndOfTheData", "message", "451 4.3.0 Error: queue file write error",
     RelayProof::accepted},
};

class RelayProofTest : public testing::TestWithParam<Refusal> {};

TEST_P(RelayProofTest, IsJudgedByStepAndWords) {
    SmtpOutcome outcome;
    outcome.step = GetParam().step;
    outcome.reply = {std::stoi(GetParam().reply), GetParam().reply};
    EXPECT_EQ(judgeRelaying(outcome), GetParam().proof);
}

INSTANTIATE_TEST_SUITE_P(Replies, RelayProofTest, testing::ValuesIn(refusals),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(RelayProofOutcomeTest, AcceptedMessageProvesAnOpenRelay) {
    SmtpOutcome outcome;
    outcome.accepted = true;
    EXPECT_EQ(judgeRelaying(outcome), RelayProof::accepted);
}

TEST(RelayProofOutcomeTest, SilenceProvesNothingBeforeTheRecipientIsAccepted) {
    SmtpOutcome outcome;
    outcome.failure = "no answer in time";
    outcome.step = "RCPT";
    EXPECT_EQ(judgeRelaying(outcome), RelayProof::noneByFault);
    outcome.step = "message";
    EXPECT_EQ(judgeRelaying(outcome), RelayProof::accepted);
}

} // namespace
