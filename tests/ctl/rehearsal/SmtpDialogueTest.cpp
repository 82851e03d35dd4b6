#include "ctl/rehearsal/SmtpDialogue.h"

#include <deque>
#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

// A server that gives its replies one by one, whatever it is sent, and then closes the
// connection.
class Script : public SmtpChannel {
public:
    explicit Script(std::deque<SmtpReply> replies) : replies_(std::move(replies)) {}

    void send(const std::string& bytes) override { said += bytes; }
    bool await(SmtpReply& reply) override {
        if (replies_.empty()) {
            return false;
        }
        reply = replies_.front();
        replies_.pop_front();
        return true;
    }
    std::string failure() const override { return "gone"; }

    std::string said;

private:
    std::deque<SmtpReply> replies_;
};

const SmtpReply ok{250, "250 Ok"};
const SmtpMessage message{"[192.0.2.1]", "a@b", "c@d", "Subject: x\n\n.dot\nend"};

TEST(SmtpDialogueTest, WholeDialogueHandsTheMessageOver) {
    Script server({{220, "220 x"}, ok, ok, ok, {354, "354 go"}, {250, "250 queued"}});
    const SmtpOutcome outcome = offerMessage(server, message);
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.reply.text, "250 queued");
    EXPECT_EQ(server.said, "EHLO [192.0.2.1]\r\n"
                           "MAIL FROM:<a@b>\r\n"
                           "RCPT TO:<c@d>\r\n"
                           "DATA\r\n"
                           "Subject: x\r\n\r\n..dot\r\nend\r\n.\r\n"
                           "QUIT\r\n");
}

TEST(SmtpDialogueTest, RefusalEndsItWithTheReply) {
    Script server({{220, "220 x"}, ok, ok, {554, "554 5.7.1 no"}});
    const SmtpOutcome outcome = offerMessage(server, message);
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.step, "RCPT");
    EXPECT_EQ(outcome.reply.text, "554 5.7.1 no");
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(server.said.substr(server.said.size() - 6), "QUIT\r\n");
}

TEST(SmtpDialogueTest, ServerThatLeavesIsToldWithTheStep) {
    Script server({{220, "220 x"}});
    const SmtpOutcome outcome = offerMessage(server, message);
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.step, "EHLO");
    EXPECT_EQ(outcome.failure, "gone");
}

TEST(SmtpDialogueTest, ServerThatSpeaksSomethingElseGetsNoMessage) {
    Script server({{0, "SSH-2.0"}});
    const SmtpOutcome outcome = offerMessage(server, message);
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(server.said, "QUIT\r\n");
}

} // namespace
