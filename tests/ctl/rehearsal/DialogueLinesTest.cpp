#include "ctl/rehearsal/DialogueLines.h"

#include <gtest/gtest.h>

using namespace torva::ctl::rehearsal;

namespace {

using Lines = std::vector<std::string>;

class DialogueLinesTest : public testing::Test {
protected:
    DialogueLinesTest() { sendFrom("127.0.0.1"); }

    void sendFrom(const std::string& client) {
        attempt_.client = client;
        attempt_.message = {"[" + client + "]", "sender@[" + client + "]", "root@x", ""};
        attempt_.outcome.step = "RCPT";
    }

    void setLog(const Lines& lines) {
        log_.clear();
        for (const std::string& line : lines) {
            log_.push_back(parseLogLine(line));
        }
        attempt_.logEnd = log_.size();
    }

    void setReply(const std::string& text) { attempt_.outcome.reply = {std::stoi(text), text}; }

    Lines dialogue() const {
        Lines texts;
        for (const LogLine& line : linesOfDialogue(log_, attempt_)) {
            texts.push_back(line.text);
        }
        return texts;
    }

    std::string refusal() const { return lineOfRefusal(log_, attempt_).text; }

    Attempt attempt_;
    std::vector<LogLine> log_;
};

TEST_F(DialogueLinesTest, RefusalOfAnotherMessageIsNotTheReason) {
    setReply("550 5.7.1 no rehearsals");
    setLog({"postfix/cleanup[1]: A: reject: header Subject: x from local; from=<root@x> to=<root@x>"
            ": 5.7.1 no rehearsals",
            "postfix/cleanup[1]: B: reject: header Subject: y from localhost[127.0.0.1]; "
            "from=<sender@[127.0.0.1]> to=<root@x> proto=ESMTP helo=<[127.0.0.1]>: 5.7.1 no "
            "rehearsals"});
    EXPECT_EQ(refusal(), log_[1].text);
    log_.pop_back();
    EXPECT_EQ(refusal(), "");
}

TEST_F(DialogueLinesTest, RefusalOfTheFiltersOwnConnectionIsNotTheReason) {
    setReply("452 4.3.1 Insufficient system storage");
    const std::string head =
        "NOQUEUE: reject: MAIL from localhost[127.0.0.1]: 452 4.3.1 Insufficient system storage; "
        "proto=ESMTP helo=";
    setLog({"postfix/smtpd[1]: " + head + "<host.example>",
            "postfix/smtpd[2]: " + head + "<[127.0.0.1]>"});
    EXPECT_EQ(refusal(), log_[1].text);
}

TEST_F(DialogueLinesTest, RefusalOfAnotherRecipientIsNotTheReason) {
    setReply("550 no");
    setLog({"postfix/smtpd[1]: NOQUEUE: reject: RCPT from x: 550 no; from=<sender@[127.0.0.1]> "
            "to=<other@x>"});
    EXPECT_EQ(refusal(), "");
}

TEST_F(DialogueLinesTest, ServerIsKnownByWhatItSaysOfTheMessage) {
    setLog({"postfix/smtpd[1]: connect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: warning: at its start",
            "postfix/smtpd[2]: connect from localhost[127.0.0.1]",
            "postfix/smtpd[1]: warning: of the filter's connection",
            "postfix/smtpd[2]: warning: this",
            "postfix/smtpd[2]: NOQUEUE: reject: RCPT from x: 451 no; helo=<[127.0.0.1]>",
            "postfix/smtpd[2]: disconnect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: connect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: warning: of the next connection"});
    EXPECT_EQ(dialogue(), (Lines{"connect from localhost[127.0.0.1]", "warning: this", log_[5].text,
                                 log_[6].text}));
}

TEST_F(DialogueLinesTest, ConnectionBeforeOursToTheSameServerIsNotOurs) {
    setLog({"postfix/smtpd[2]: connect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: warning: of the connection before",
            "postfix/smtpd[2]: disconnect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: connect from localhost[127.0.0.1]",
            "postfix/smtpd[2]: A: client=localhost[127.0.0.1]",
            "postfix/cleanup[3]: B: milter-reject: of another",
            "postfix/cleanup[3]: A: milter-reject: of ours"});
    EXPECT_EQ(dialogue(), (Lines{"connect from localhost[127.0.0.1]",
                                 "A: client=localhost[127.0.0.1]", "A: milter-reject: of ours"}));
}

TEST_F(DialogueLinesTest, AmongSeveralConnectionsNoneIsGuessed) {
    setLog({"postfix/smtpd[1]: connect from localhost[127.0.0.1]", "postfix/smtpd[1]: warning: a",
            "postfix/smtpd[2]: connect from localhost[127.0.0.1]", "postfix/smtpd[2]: warning: b"});
    EXPECT_EQ(dialogue(), Lines{});
}

TEST_F(DialogueLinesTest, ConnectionOfAFilterIsNotOursBeforeTheGreeting) {
    attempt_.outcome.step = "greeting";
    setLog({"postfix/smtpd[1]: connect from localhost[127.0.0.1]", "postfix/smtpd[1]: warning: a"});
    EXPECT_EQ(dialogue(), Lines{});
}

TEST_F(DialogueLinesTest, ServerThatSaysNothingMoreIsKnownByTheClient) {
    sendFrom("192.0.2.25");
    attempt_.outcome.step = "greeting";
    setLog({"postfix/smtpd[1]: warning: No PEM data in x",
            "postfix/smtpd[1]: connect from o[192.0.2.25]", "postfix/smtpd[2]: warning: b",
            "postfix/smtpd[1]: warning: connect to Milter service"});
    EXPECT_EQ(dialogue(),
              (Lines{"connect from o[192.0.2.25]", "warning: connect to Milter service"}));
}

TEST_F(DialogueLinesTest, LookupThatFailsIsTheCauseOfAReplyThatSaysSo) {
    setReply("451 4.3.0 <root@x>: Temporary lookup failure");
    setLog({"postfix/trivial-rewrite[1]: warning: ldap:/x is unavailable",
            "postfix/smtpd[2]: NOQUEUE: reject: RCPT from x: 451 4.3.0 <root@x>: Temporary lookup "
            "failure; from=<sender@[127.0.0.1]> to=<root@x> helo=<[127.0.0.1]>"});
    EXPECT_EQ(refusal(), log_[0].text);
}

TEST_F(DialogueLinesTest, LinesOfSendmailAreItsOwn) {
    attempt_.client = "";
    setLog({"postfix/smtpd[1]: warning: a", "postfix/sendmail[2]: fatal: b",
            "postfix/postdrop[3]: warning: c"});
    EXPECT_EQ(dialogue(), (Lines{"fatal: b", "warning: c"}));
}

} // namespace
