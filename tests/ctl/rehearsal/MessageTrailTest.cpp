#include "ctl/rehearsal/MessageTrail.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

const char* const messageId = "<rehearsal-1@example.net>";

std::vector<LogLine> linesFrom(const std::vector<const char*>& texts) {
    std::vector<LogLine> log;
    for (const char* text : texts) {
        log.push_back(parseLogLine(text));
    }
    return log;
}

MessageTrail follow(const std::vector<const char*>& lines, const char* queueId = "") {
    return followMessage(linesFrom(lines), {messageId, queueId});
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

TEST(MessageTrailTest, MessageWithoutMessageIdIsFollowedByItsQueueIds) {
    const MessageTrail trail =
        follow({"postfix/pickup[1]: A: uid=0 from=<root>", "postfix/cleanup[1]: A: message-id=<>",
                "postfix/smtp[2]: A: to=<a@x>, relay=127.0.0.1[127.0.0.1]:10027, status=sent (250 "
                "2.0.0 Ok: queued as B)",
                "postfix/qmgr[3]: A: removed", "postfix/cleanup[1]: B: message-id=<>",
                "postfix/local[4]: B: to=<a@x>, relay=local, status=sent (forwarded as C)",
                "postfix/cleanup[1]: C: message-id=<>", "postfix/cleanup[1]: D: message-id=<>",
                "postfix/qmgr[3]: B: removed",
                "postfix/local[4]: C: to=<b@x>, relay=local, status=sent (delivered to mailbox)",
                "postfix/qmgr[3]: C: removed"},
               "A");
    EXPECT_TRUE(trail.queued);
    EXPECT_TRUE(trail.settled);
    ASSERT_EQ(trail.deliveries.size(), 1U);
    EXPECT_EQ(trail.deliveries[0].recipient, "b@x");
}

TEST(MessageTrailTest, DiscardBeforeTheMessageIdIsSeen) {
    const MessageTrail trail =
        follow({"postfix/smtpd[1]: A: client=localhost[127.0.0.1]",
                "postfix/cleanup[1]: A: discard: header From: x from localhost[127.0.0.1]"},
               "A");
    EXPECT_TRUE(trail.settled);
    EXPECT_EQ(trail.deliveries.at(0).status, "discarded");
}

TEST(MessageTrailTest, MessageOfWhichOnlyTheOriginIsLoggedIsNotQueued) {
    const MessageTrail trail = follow({"postfix/pickup[1]: A: uid=0 from=<root>"}, "A");
    EXPECT_TRUE(trail.found);
    EXPECT_FALSE(trail.queued);
    EXPECT_FALSE(trail.settled);
    EXPECT_EQ(trail.last.text, "A: uid=0 from=<root>");
    EXPECT_FALSE(follow({"postfix/pickup[1]: A: uid=0 from=<root>",
                         "postfix/cleanup[2]: A: milter-reject: CONNECT from localhost[127.0.0.1]: "
                         "4.7.1 Service unavailable; from=<root@x>"},
                        "A")
                     .queued);
}

TEST(MessageTrailTest, WhatCleanupRefusesIsSettled) {
    EXPECT_TRUE(follow({"postfix/pickup[1]: A: uid=0 from=<root>",
                        "postfix/cleanup[2]: A: to=<root@x>, relay=none, delay=0, dsn=5.7.1, "
                        "status=bounced (no)"},
                       "A")
                    .settled);
}

TEST(MessageTrailTest, LinesFromBeforeTheMessageAreNotAboutIt) {
    const auto log = linesFrom({"postfix/local[2]: A: to=<o@x>, relay=local, status=bounced (no)",
                                "postfix/qmgr[3]: A: removed",
                                "postfix/smtpd[1]: A: client=localhost[127.0.0.1]"});
    const MessageTrail trail = followMessage(log, {messageId, "A", 2});
    EXPECT_TRUE(trail.deliveries.empty());
    EXPECT_FALSE(trail.settled);
}

TEST(MessageTrailTest, MarksAreInTheReplyOrInTheLineOfPickup) {
    Attempt attempt;
    attempt.messageId = messageId;
    attempt.logBegin = 1;
    const auto log = linesFrom({"postfix/pickup[1]: Z: uid=5 from=<before>",
                                "postfix/smtpd[1]: Y: client=localhost[127.0.0.1]",
                                "postfix/pickup[1]: A: uid=0 from=<root>",
                                "postfix/pickup[1]: B: uid=5 from=<panel>"});
    EXPECT_EQ(marksOf(log, attempt).queueId, "A");
    attempt.client = "127.0.0.1";
    EXPECT_EQ(marksOf(log, attempt).queueId, "");
    attempt.outcome.reply = {250, "250 2.0.0 Ok: queued as 4D7B2"};
    EXPECT_EQ(marksOf(log, attempt).queueId, "4D7B2");
    EXPECT_EQ(marksOf(log, attempt).messageId, messageId);
    EXPECT_EQ(marksOf(log, attempt).since, 1U);
}

} // namespace
