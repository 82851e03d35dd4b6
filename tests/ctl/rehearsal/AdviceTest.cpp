#include "ctl/rehearsal/Advice.h"

#include "ctl/rehearsal/attempts.h"

using namespace torva::ctl::rehearsal;
using namespace torva::test::rehearsal;
using torva::ctl::Finding;

namespace {

Attempt unanswered(const std::string& failure) {
    Attempt attempt;
    attempt.what = "from loopback to r";
    attempt.client = "127.0.0.1";
    attempt.outcome.step = "greeting";
    attempt.outcome.failure = failure;
    return attempt;
}

Surroundings withoutServices(const std::vector<std::string>& disabled) {
    Surroundings around = host;
    around.disabled = disabled;
    return around;
}

const char* const noPort = "port 25 of 127.0.0.1: Connection refused";

TEST(AdviceTest, DisabledServiceIsTheReasonWhyNothingListens) {
    EXPECT_EQ(tellAttempt(unanswered(noPort), {}, withoutServices({"submission", "smtp"})).advice,
              "The service smtp stands in master.cf, but is switched off: postconf -h "
              "master_service_disable");
    EXPECT_EQ(adviceFor("connect to 127.0.0.1[127.0.0.1]:10027: Connection refused",
                        withoutServices({"127.0.0.1:10025", "127.0.0.1:10027"})),
              "The service 127.0.0.1:10027 stands in master.cf, but is switched off: postconf -h "
              "master_service_disable");
}

TEST(AdviceTest, DisabledServiceElsewhereIsNotTheReason) {
    EXPECT_EQ(tellAttempt(unanswered(noPort), {}, withoutServices({"submission"})).advice,
              "Nothing of Postfix listens there: look at inet_interfaces, and at the service smtp "
              "in master.cf. Another program that does so on the host is not started here.");
    EXPECT_EQ(adviceFor("connect to 127.0.0.1[127.0.0.1]:10024: Connection refused",
                        withoutServices({"smtp", "127.0.0.1:10025"})),
              "Only Postfix is started here. When another program listens there on the host, this "
              "tells nothing about it.");
}

TEST(AdviceTest, ServiceThatCannotStartIsWhatASilentServerMayWaitFor) {
    const auto log =
        logOf({"postfix/master[1]: warning: process /a/cleanup pid 7 exit status 1",
               "postfix/master[1]: warning: /a/cleanup: bad command startup -- throttling"});
    const Finding finding = tellAttempt(unanswered("port 25 of x: no answer in time"), log, host);
    EXPECT_EQ(finding.text, "from loopback to r: not accepted: port 25 of x: no answer in time.");
    EXPECT_EQ(finding.advice,
              "The service program cleanup could not start; the server may wait for it.");
}

TEST(AdviceTest, EveryRefusalHasOne) {
    for (const char* const reply : {"550 no", "450 4.7.1 <x>: Client host rejected: y",
                                    "552 5.3.4 Error: message file too big", "451 4.3.0 z"}) {
        const Finding finding =
            tellAttempt(refused("from outside to r", {std::stoi(reply), reply}, 0), {}, host);
        EXPECT_NE(finding.advice, "") << reply;
    }
}

TEST(AdviceTest, EveryFailureHasOne) {
    for (const char* const failure :
         {noPort, "port 25 of x: no answer in time",
          "port 25 of x: the server closed the "
          "connection",
          "port 25 of x: its server cannot start", "sendmail failed", "anything"}) {
        EXPECT_NE(tellAttempt(unanswered(failure), {}, host).advice, "") << failure;
    }
}

TEST(AdviceTest, EveryTroubleOnTheWayHasOne) {
    for (const char* const end :
         {"status=bounced (anything)", "status=deferred (anything)", "status=expired (anything)",
          "status=deferred (deferred transport)", "status=bounced (Command died with status 1)"}) {
        const std::string line = std::string("postfix/local[2]: A: to=<a@x>, relay=local, ") + end;
        const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>", line.c_str()});
        EXPECT_NE(tellAttempt(accepted("sendmail root"), log, host).advice, "") << end;
    }
    const auto log = logOf({"postfix/cleanup[1]: A: message-id=<m@x>",
                            "postfix/cleanup[1]: A: "
                            "hold: header To: x from local; from=<root@x>: why"});
    EXPECT_EQ(tellAttempt(accepted("sendmail root"), log, host).advice,
              "Look at header_checks, body_checks and the other settings whose names end with "
              "_checks.");
}

TEST(AdviceTest, EveryServiceInTroubleHasOne) {
    const LogLine line = parseLogLine("postfix/qmgr[7]: fatal: x");
    EXPECT_NE(tellFault({"qmgr", true, line}).advice, "");
    EXPECT_NE(tellFault({"qmgr", false, line}).advice, "");
}

} // namespace
