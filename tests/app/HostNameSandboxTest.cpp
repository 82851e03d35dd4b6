// The repair of the host name, with fakes for postconf and hostname.
#include "app/HostName.h"
#include "support/FakeTool.h"
#include "support/WaitingChild.h"
#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>

using testing::ElementsAre;
using testing::IsEmpty;
using torva::app::fullHostName;
using torva::app::repairHostName;
using torva::mail::postfix::PostfixConfigurationError;
using torva::mail::postfix::PostfixParameters;
using torva::test::FakeTool;

namespace {

const char postconf[] = "/usr/sbin/postconf";
const char hostname[] = "/usr/bin/hostname";
const char warning[] =
    "Detected problems with $myhostname parameter in Postfix main.cf, but unable "
    "to execute `hostname -f`, leave $myhostname untouched\n";

class RepairHostNameTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        PostfixParameters::instance(); // reads the path of main.cf, which no test should count
    }

    /// The output of hostname; "" for nothing.
    void answer(const std::string& text, const std::string& mydomain = "localdomain") {
        hostname_.reset();
        postconf_.reset();
        hostname_.emplace(hostname, "printf '%s' '" + text + "'");
        postconf_.emplace(postconf, "echo '" + mydomain + "'");
    }

    std::optional<FakeTool> hostname_;
    std::optional<FakeTool> postconf_;
};

} // namespace

TEST_F(RepairHostNameTest, DottedNameIsLeftAlone) {
    answer("other.example.net\n");
    EXPECT_EQ(repairHostName("host.example.net"), "host.example.net");
    EXPECT_EQ(repairHostName("."), ".");
    EXPECT_THAT(postconf_->calls(), IsEmpty());
    EXPECT_THAT(hostname_->calls(), IsEmpty());
}

TEST_F(RepairHostNameTest, LocalhostIsNamedWithoutAskingHostname) {
    answer("other.example.net\n");
    EXPECT_EQ(repairHostName("localhost"), "localhost.localdomain");
    EXPECT_THAT(postconf_->calls(), ElementsAre("[-e][myhostname=localhost.localdomain]",
                                                "[-h][mydomain]", "[-e][mydomain=localdomain]"));
    EXPECT_THAT(hostname_->calls(), IsEmpty());
}

TEST_F(RepairHostNameTest, AnotherNameTakesTheAnswerOfHostname) {
    answer("host.example.net\n");
    EXPECT_EQ(repairHostName("vm"), "host.example.net");
    EXPECT_THAT(hostname_->calls(), ElementsAre("[-f]"));
    EXPECT_THAT(postconf_->calls(), ElementsAre("[-e][myhostname=host.example.net]",
                                                "[-h][mydomain]", "[-e][mydomain=example.net]"));
}

TEST_F(RepairHostNameTest, ADottedDomainStays) {
    answer("host.example.net\n", "example.org");
    EXPECT_EQ(repairHostName("vm"), "host.example.net");
    EXPECT_THAT(postconf_->calls(),
                ElementsAre("[-e][myhostname=host.example.net]", "[-h][mydomain]"));
}

TEST_F(RepairHostNameTest, AnAnswerWithoutADotIsTakenAndTheDomainIsNotReadEvenWhenItIsLocalhost) {
    for (const std::string name : {"localhost", "vm2", "host."}) {
        answer(name + "\n");
        EXPECT_EQ(repairHostName("vm"), name);
        EXPECT_THAT(postconf_->calls(), ElementsAre("[-e][myhostname=" + name + "]"));
    }
}

TEST_F(RepairHostNameTest, WithoutAnAnswerThereIsAWarningAndNothingIsChanged) {
    for (const char* text : {"", "\n", " \t\nhost.example.net\n"}) {
        answer(text);
        testing::internal::CaptureStderr();
        EXPECT_EQ(repairHostName("vm"), "vm");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), warning);
        EXPECT_THAT(postconf_->calls(), IsEmpty());
    }
}

TEST_F(RepairHostNameTest, AParameterThatCannotBeWrittenOrReadIsAnError) {
    answer("host.example.net\n");
    postconf_.reset();
    postconf_.emplace(postconf, "echo 'no' >&2; exit 1");
    EXPECT_THROW(repairHostName("vm"), PostfixConfigurationError);
    EXPECT_THAT(postconf_->calls(), ElementsAre("[-e][myhostname=host.example.net]"));
    postconf_.reset();
    postconf_.emplace(postconf, "case $1 in -h) exit 1; esac");
    EXPECT_THROW(repairHostName("vm"), PostfixConfigurationError);
}

TEST_F(RepairHostNameTest, TheFullNameIsTheFirstLineTrimmedWhateverTheExitStatus) {
    const FakeTool fake(hostname,
                        "printf ' \\t host.example.net \\r\\nother.example.net\\n'; exit 1");
    EXPECT_EQ(fullHostName(), "host.example.net");
    EXPECT_THAT(fake.calls(), ElementsAre("[-f]"));
}

TEST_F(RepairHostNameTest, AnAnswerOfOneCharacterIsAName) {
    const FakeTool fake(hostname, "printf h");
    EXPECT_EQ(fullHostName(), "h");
}

TEST_F(RepairHostNameTest, OtherChildrenOfTheProcessAreNotWaitedFor) {
    const FakeTool fake(hostname, "echo host.example.net");
    const torva::test::WaitingChild child;
    EXPECT_EQ(fullHostName(), "host.example.net");
    EXPECT_TRUE(child.isThere());
}

TEST_F(RepairHostNameTest, ACommandThatTheSystemHasLostIsWaitedFor) {
    const FakeTool fake(hostname, "echo host.example.net");
    const auto outcome = torva::test::inChild([] {
        // pclose(3) waits for its child by number, and cannot; any child can be waited for.
        if (!torva::test::failSyscall(SYS_wait4, EIO, 0, static_cast<std::uint32_t>(-1), true)) {
            return static_cast<int>(torva::test::noFilters);
        }
        const bool answered = fullHostName() == "host.example.net";
        return answered && ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1;
    });
    if (outcome.exited == torva::test::noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
}

TEST_F(RepairHostNameTest, ANameThatCannotBeAskedForIsEmpty) {
    rlimit usual = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none = {0, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string name = fullHostName();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(name, "");
}
