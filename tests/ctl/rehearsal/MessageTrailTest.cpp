#include "ctl/rehearsal/MessageTrail.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

const char* const messageId = "<rehearsal-1@example.net>";

MessageTrail follow(const std::vector<const char*>& lines) {
    std::vector<LogLine> log;
    for (const char* line : lines) {
        log.push_back(parseLogLine(line));
    }
    return followMessage(log, messageId);
}

TEST(MessageTrailTest, MessageThatNobodyLoggedIsNotQueued) {
    const MessageTrail trail = follow({"postfix/qmgr[1]: A: removed"});
    EXPECT_FALSE(trail.queued);
    EXPECT_FALSE(trail.settled);
    EXPECT_TRUE(trail.deliveries.empty());
}

TEST(MessageTrailTest, DeliveryIsReadInItsParts) {
    const MessageTrail trail =
        follow({"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
                "postfix/local[2]: A: to=<root@x>, orig_to=<root>, relay=local, delay=0.1, "
                "delays=0/0/0/0, dsn=2.0.0, status=sent (delivered to mailbox)",
                "postfix/qmgr[3]: A: removed"});
    ASSERT_EQ(trail.deliveries.size(), 1U);
    EXPECT_TRUE(trail.settled);
    EXPECT_EQ(trail.deliveries[0].recipient, "root@x");
    EXPECT_EQ(trail.deliveries[0].relay, "local");
    EXPECT_EQ(trail.deliveries[0].status, "sent");
    EXPECT_EQ(trail.deliveries[0].reason, "delivered to mailbox");
    EXPECT_EQ(trail.deliveries[0].line.daemon(), "local");
}

TEST(MessageTrailTest, IsNotSettledBeforeItIsRemoved) {
    EXPECT_FALSE(follow({"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
                         "postfix/local[2]: A: to=<a@x>, relay=local, status=sent (ok)"})
                     .settled);
}

TEST(MessageTrailTest, DeferredIsSettledForNow) {
    const MessageTrail trail =
        follow({"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
                "postfix/smtp[2]: A: to=<a@x>, relay=none, delay=1, status=deferred (connect to "
                "127.0.0.1[127.0.0.1]:10027: Connection refused)"});
    EXPECT_TRUE(trail.settled);
    EXPECT_EQ(trail.deliveries.at(0).status, "deferred");
    EXPECT_EQ(trail.deliveries.at(0).reason,
              "connect to 127.0.0.1[127.0.0.1]:10027: Connection refused");
}

TEST(MessageTrailTest, IsFollowedThroughAFilterToItsLastStation) {
    const MessageTrail trail = follow(
        {"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
         "postfix/cleanup[1]: B: message-id=<rehearsal-1@example.net>",
         "postfix/smtp[2]: A: to=<a@x>, relay=127.0.0.1[127.0.0.1]:10027, status=sent (250 2.0.0 "
         "Ok: queued as B)",
         "postfix/qmgr[3]: A: removed",
         "postfix/local[4]: B: to=<a@x>, relay=local, status=sent (forwarded as C)",
         "postfix/cleanup[1]: C: message-id=<rehearsal-1@example.net>",
         "postfix/qmgr[3]: B: removed",
         "postfix/local[4]: C: to=<b@x>, relay=local, status=sent (delivered to mailbox)"});
    EXPECT_FALSE(trail.settled) << "C is still in the queue";
    ASSERT_EQ(trail.deliveries.size(), 1U);
    EXPECT_EQ(trail.deliveries[0].recipient, "b@x");
    EXPECT_EQ(trail.last.whole(), "postfix/local[4]: C: to=<b@x>, relay=local, status=sent "
                                  "(delivered to mailbox)");
}

TEST(MessageTrailTest, QueueIdOfAnotherHostIsALastStation) {
    EXPECT_EQ(follow({"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
                      "postfix/smtp[2]: A: to=<a@x>, relay=y[10.0.0.1]:25, status=sent (250 "
                      "queued as Z)"})
                  .deliveries.size(),
              1U);
}

TEST(MessageTrailTest, QueueIdThatIsUsedAgainTellsNothingOfTheMessageBefore) {
    const MessageTrail trail =
        follow({"postfix/cleanup[1]: A: message-id=<other@x>",
                "postfix/local[2]: A: to=<other@x>, relay=local, status=bounced (no)",
                "postfix/qmgr[3]: A: removed",
                "postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>"});
    EXPECT_TRUE(trail.deliveries.empty());
    EXPECT_FALSE(trail.settled);
}

TEST(MessageTrailTest, HoldByARuleIsSeenAlsoBeforeTheMessageId) {
    const MessageTrail trail =
        follow({"postfix/cleanup[1]: A: hold: header From: x from local; from=<root@x>",
                "postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>"});
    EXPECT_TRUE(trail.settled);
    EXPECT_EQ(trail.deliveries.at(0).status, "held");
    EXPECT_EQ(trail.deliveries.at(0).reason, "hold: header From: x from local; from=<root@x>");
}

TEST(MessageTrailTest, DiscardByAMilterIsSeen) {
    const MessageTrail trail =
        follow({"postfix/cleanup[1]: A: message-id=<rehearsal-1@example.net>",
                "postfix/cleanup[1]: A: milter-discard: END-OF-MESSAGE from x: triggers DISCARD"});
    EXPECT_TRUE(trail.settled);
    EXPECT_EQ(trail.deliveries.at(0).status, "discarded");
}

} // namespace
