// Attempts to send, and the log about them, for the tests of the findings.
#pragma once

#include "ctl/rehearsal/DeliveryFindings.h"

#include <gtest/gtest.h>

namespace torva::test::rehearsal {

using namespace ctl::rehearsal;

inline std::vector<LogLine> logOf(const std::vector<const char*>& lines) {
    std::vector<LogLine> log;
    for (const char* line : lines) {
        log.push_back(parseLogLine(line));
    }
    return log;
}

inline const Surroundings host = {{}, "mail.example.net", "$myhostname, localhost"};

inline Surroundings withoutQueueProgram() {
    Surroundings around = host;
    around.missing = {
        {"/usr/lib/torva-9.0/postfix-queue", {"127.0.0.1:10025", "127.0.0.1:10027"}, true}};
    return around;
}

inline Attempt accepted(const std::string& what) {
    Attempt attempt;
    attempt.what = what;
    attempt.messageId = "<m@x>";
    attempt.outcome.accepted = true;
    attempt.outcome.reply = {250, "250 2.0.0 Ok: queued as A"};
    return attempt;
}

inline Attempt refused(const std::string& what, const SmtpReply& reply, std::size_t lines) {
    Attempt attempt;
    attempt.what = what;
    attempt.client = "192.0.2.1";
    attempt.message = {"[192.0.2.1]", "sender@[192.0.2.1]", "r", ""};
    attempt.outcome.step = "RCPT";
    attempt.outcome.reply = reply;
    attempt.logEnd = lines;
    return attempt;
}

inline void expectFinding(const ctl::Finding& finding, ctl::Level level, const std::string& text,
                          const std::string& advice) {
    EXPECT_EQ(finding.level, level);
    EXPECT_EQ(finding.subject, "delivery");
    EXPECT_EQ(finding.text, text);
    EXPECT_EQ(finding.advice, advice);
}

} // namespace torva::test::rehearsal
