// PostfixParameters and the relay policies, with a fake for postconf
// where its behaviour is the point, and with the real one.
#include "support/FakeTool.h"
#include "support/LockHolder.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/postfix/params/RelayPolicy.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using torva::test::contentOf;
using torva::test::FakeTool;
using torva::test::lockHolder;
using torva::test::passThrough;
using torva::test::writeFile;

namespace {

const char postconfPath[] = "/usr/sbin/postconf";
const char restrictions[] = "smtpd_recipient_restrictions";
const char closedList[] = "permit_mynetworks, check_client_access "
                          "pcre:/var/spool/postfix/torva/no_relay.re, reject_unauth_destination";

int failingForks = 0; ///< how many of the next ones have no process to give

/// Prints a directory for the path of main.cf and does BODY for the rest.
std::string locating(const std::string& body) {
    return "case \"$*\" in *config_directory) echo /etc/postfix; exit;; esac\n" + body;
}

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const PostfixConfigurationError& error) {
        return error.what();
    }
    return "no error";
}

} // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the C library's
extern "C" pid_t __fork(void);

// The C library's, which this executable's own hides.
extern "C" pid_t fork() noexcept {
    if (failingForks > 0) {
        --failingForks;
        errno = EAGAIN;
        return -1;
    }
    return __fork();
}

namespace {

class FakePostconfTest : public testing::Test {
protected:
    /// A parameters object whose postconf does what the script says.
    std::string read(const std::string& script, const std::string& name = "x") {
        const FakeTool fake(postconfPath, locating(script));
        return PostfixParameters().getParameter(name);
    }
    std::string readFailure(const std::string& script) {
        return messageOf([&] { read(script); });
    }
};

TEST_F(FakePostconfTest, CommandLines) {
    const FakeTool fake(postconfPath, "echo /etc/postfix");
    PostfixParameters parameters;
    parameters.getParameter("relayhost");
    parameters.getParameter("relayhost", true);
    parameters.setParameter("relayhost", "a, b c");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][config_directory]", "[-h][relayhost]",
                                          "[-h][-d][relayhost]", "[-e][relayhost=a, b c]"));
    EXPECT_EQ(fake.input(), "");
}

TEST_F(FakePostconfTest, TrailingWhiteSpaceGoesAndLeadingStays) {
    EXPECT_EQ(read("printf '  a  b \\t\\r\\n\\n'"), "  a  b");
}

TEST_F(FakePostconfTest, EmptyValueIsNoError) {
    EXPECT_EQ(read("echo"), "");
}

TEST_F(FakePostconfTest, WarningWithEmptyOutputSucceeds) {
    EXPECT_EQ(read("echo 'postconf: warning: /etc/postfix/main.cf: unused parameter: x=y' >&2"),
              "");
}

TEST_F(FakePostconfTest, WarningsOfLaterVersionsChangeNoAnswerAndNoSetting) {
    const std::string warnings =
        "printf '%s\\n' 'postconf: warning: /etc/postfix/main.cf: support for parameter "
        "\"smtpd_use_tls\" will be removed; instead, specify \"smtpd_tls_security_level\"' "
        "'postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for details' >&2;";
    EXPECT_EQ(read(warnings + "echo value"), "value");
    EXPECT_EQ(read(warnings), "");
    const FakeTool fake(postconfPath, warnings + "echo /etc/postfix");
    PostfixParameters parameters;
    EXPECT_EQ(parameters.getExpandedParameter("relayhost"), "/etc/postfix");
    EXPECT_NO_THROW(parameters.setParameter("relayhost", "x"));
}

TEST_F(FakePostconfTest, FatalWithStatusZeroAndEmptyOutputFails) {
    EXPECT_EQ(
        readFailure("echo 'postconf: fatal: open /etc/postfix/main.cf: No such file or directory' "
                    ">&2"),
        "postconf: fatal: open /etc/postfix/main.cf: No such file or directory\n");
}

TEST_F(FakePostconfTest, FatalBesideOutputSucceeds) {
    EXPECT_EQ(read("echo value; echo 'postconf: fatal: x' >&2"), "value");
}

TEST_F(FakePostconfTest, StatusOneWithoutTextIsAnUnknownError) {
    EXPECT_EQ(readFailure("echo value; exit 1"), "unknown error");
}

TEST_F(FakePostconfTest, StatusOneCarriesItsTextUntrimmed) {
    EXPECT_EQ(readFailure("printf 'what\\n\\n' >&2; exit 1"), "what\n\n");
}

TEST_F(FakePostconfTest, DeathBySignalIsAFailure) {
    EXPECT_EQ(readFailure("echo value; kill -KILL $$"), "unknown error");
}

TEST_F(FakePostconfTest, SettingDoesNotLookAtTheOutput) {
    const FakeTool fake(postconfPath, locating("echo 'postconf: fatal: x' >&2"));
    EXPECT_NO_THROW(PostfixParameters().setParameter("a", "b"));
}

TEST_F(FakePostconfTest, FailedSettingCarriesTheText) {
    const FakeTool fake(postconfPath, locating("echo 'no way' >&2; exit 1"));
    EXPECT_EQ(messageOf([] { PostfixParameters().setParameter("a", "b"); }), "no way\n");
}

TEST_F(FakePostconfTest, MissingToolIsAnErrorOfTheSystem) {
    const FakeTool fake(postconfPath, "");
    ASSERT_EQ(::unlink(postconfPath), 0);
    try {
        PostfixParameters parameters;
        FAIL() << "no exception";
    } catch (const torva::SystemError& error) {
        EXPECT_EQ(error.code(), ENOENT);
        EXPECT_THAT(error.what(), StartsWith("execv: "));
    }
}

TEST_F(FakePostconfTest, PathOfMainCfFallsBackToTheBuiltInDirectory) {
    const FakeTool fake(postconfPath, "[ \"$2\" = -d ] && echo /etc/postfix || exit 1");
    EXPECT_EQ(PostfixParameters().path(), "/etc/postfix/main.cf");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][config_directory]", "[-h][-d][config_directory]"));
}

TEST_F(FakePostconfTest, PathOfMainCfIsAskedForAgainWhateverTheFirstFailureWas) {
    const FakeTool fake(postconfPath, "echo /built/in");
    failingForks = 1;
    EXPECT_EQ(PostfixParameters().path(), "/built/in/main.cf");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][-d][config_directory]"));
}

TEST_F(FakePostconfTest, PathOfMainCfKeepsATrailingSlash) {
    const FakeTool fake(postconfPath, "echo /etc/postfix/");
    EXPECT_EQ(PostfixParameters().path(), "/etc/postfix//main.cf");
}

TEST_F(FakePostconfTest, EmptyDirectoryIsAnError) {
    const FakeTool fake(postconfPath, "echo");
    EXPECT_EQ(messageOf([] { PostfixParameters parameters; }),
              "unable to determine Postfix config_directory parameter");
}

TEST_F(FakePostconfTest, DefaultsOfMyNetworksAreNotReplaced) {
    const FakeTool fake(postconfPath, locating("echo 127.0.0.0/8"));
    EXPECT_EQ(PostfixParameters().getParameter("mynetworks", true), "127.0.0.0/8");
}

TEST_F(FakePostconfTest, MyNetworksIsReadTwiceAndReplacedByTheHostsOwn) {
    const FakeTool fake(postconfPath, locating("echo 127.0.0.0/8 192.0.2.0/24"));
    PostfixParameters parameters;
    fake.forget();
    EXPECT_EQ(parameters.getParameter("mynetworks"), "127.0.0.0/8, 192.0.2.10/32");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][mynetworks]", "[-h][-d][mynetworks]"));
}

TEST_F(FakePostconfTest, AddingToMyNetworksWithItsDefaultWritesTheHostList) {
    const FakeTool fake(postconfPath, locating("echo 127.0.0.0/8 192.0.2.0/24"));
    PostfixParameters().addToListParameter("mynetworks", "127.0.0.0/8");
    EXPECT_EQ(fake.calls().back(), "[-e][mynetworks=127.0.0.0/8, 192.0.2.10/32]");
}

TEST_F(FakePostconfTest, AddingAPresentElementRunsNoPostconf) {
    const FakeTool fake(postconfPath, locating("echo a, b"));
    PostfixParameters parameters;
    fake.forget();
    parameters.addToListParameter("x", "b");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][x]"));
}

TEST_F(FakePostconfTest, FailedReadMeansNoWrite) {
    const FakeTool fake(postconfPath, locating("exit 1"));
    PostfixParameters parameters;
    fake.forget();
    EXPECT_EQ(messageOf([&] { parameters.addToListParameter("x", "b"); }), "unknown error");
    EXPECT_EQ(messageOf([&] { parameters.removeFromListParameter("x", "b"); }), "unknown error");
    EXPECT_EQ(messageOf([&] { parameters.addRestriction("x", "b", "c"); }), "unknown error");
    EXPECT_THAT(fake.calls(), ElementsAre("[-h][x]", "[-h][x]", "[-h][x]"));
}

TEST_F(FakePostconfTest, LockOfMainCfIsHeldByTheCallerAsLongAsTheChangeLasts) {
    const char mainCf[] = "/etc/postfix/main.cf";
    const std::string locks = std::string(std::getenv("TMPDIR")) + "/locks";
    for (const std::string status : {"0", "1"}) {
        SCOPED_TRACE(status);
        const FakeTool fake(postconfPath,
                            locating("cat /proc/locks > " + locks + "\nexit " + status));
        PostfixParameters parameters;
        EXPECT_EQ(messageOf([&] { parameters.setParameter("a", "b"); }),
                  status == "0" ? "no error" : "unknown error");
        EXPECT_EQ(lockHolder(contentOf(locks), mainCf), std::to_string(::getpid()));
        EXPECT_EQ(::unlink(locks.c_str()), 0);
        EXPECT_EQ(lockHolder(contentOf("/proc/locks"), mainCf), "none");
        EXPECT_NO_THROW(torva::FileLock(mainCf, torva::LockMode::fail));
    }
}

TEST_F(FakePostconfTest, ReadingNeitherTakesNorWaitsForTheLockOfMainCf) {
    const FakeTool fake(postconfPath, locating("echo value"));
    PostfixParameters parameters;
    const torva::FileLock held("/etc/postfix/main.cf", torva::LockMode::fail);
    EXPECT_EQ(parameters.getParameter("a"), "value");
    EXPECT_EQ(parameters.getExpandedParameter("a"), "value");
    EXPECT_TRUE(parameters.hasParameter("a"));
}

TEST_F(FakePostconfTest, SettingWaitsForTheLockOfMainCf) {
    const std::string released = std::string(std::getenv("TMPDIR")) + "/released";
    const FakeTool fake(postconfPath, locating("[ -e " + released + " ] || exit 1"));
    PostfixParameters parameters;
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        const torva::FileLock lock("/etc/postfix/main.cf", torva::LockMode::wait);
        static_cast<void>(::write(ready[1], "", 1));
        ::usleep(300000);
        writeFile(released, "");
        ::_exit(0); // the lock goes with the process, after the file is there
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_NO_THROW(parameters.setParameter("a", "b"));
    ::waitpid(holder, nullptr, 0); // the run of postconf may have reaped it
    ::close(ready[0]);
    ::close(ready[1]);
    ::unlink(released.c_str());
}

/// The machine's own main.cf, in its private copy, put back after each test.
class RealPostconfTest : public testing::Test {
protected:
    void SetUp() override { before_ = torva::test::contentOf(mainCf); }
    void TearDown() override {
        writeFile(mainCf, before_);
        // Otherwise the next test's first postconf would wait until it is older.
        timespec times[2] = {};
        ::utimensat(AT_FDCWD, mainCf, times, 0);
    }

    static std::vector<std::string> writes(const FakeTool& fake) {
        std::vector<std::string> calls;
        for (const std::string& call : fake.calls()) {
            if (call.rfind("[-e]", 0) == 0) {
                calls.push_back(call);
            }
        }
        return calls;
    }

    PostfixParameters parameters_;

private:
    static constexpr const char* mainCf = "/etc/postfix/main.cf";
    std::string before_;
};

TEST_F(RealPostconfTest, WhatWasSetIsReadBack) {
    parameters_.setParameter("smtpd_banner", "$myhostname says, \"hi\" {to} 'you'");
    EXPECT_EQ(parameters_.getParameter("smtpd_banner"), "$myhostname says, \"hi\" {to} 'you'");
    parameters_.setParameter("smtpd_banner", "");
    EXPECT_EQ(parameters_.getParameter("smtpd_banner"), "");
}

TEST_F(RealPostconfTest, MainCfIsOlderThanAChangeAndItsContentIsThatOfPostconf) {
    parameters_.setParameter("relayhost", "[192.0.2.1]");
    struct stat status = {};
    ASSERT_EQ(::stat("/etc/postfix/main.cf", &status), 0);
    EXPECT_LE(status.st_mtime, std::time(nullptr) - 3);
    EXPECT_THAT(torva::test::contentOf("/etc/postfix/main.cf"),
                HasSubstr("\nrelayhost = [192.0.2.1]\n"));
}

TEST_F(RealPostconfTest, DefaultsDoNotDependOnMainCf) {
    parameters_.setParameter("smtpd_timeout", "7s");
    EXPECT_EQ(parameters_.getParameter("smtpd_timeout"), "7s");
    EXPECT_THAT(parameters_.getParameter("smtpd_timeout", true), testing::Not("7s"));
}

TEST_F(RealPostconfTest, ListParametersGrowAndShrink) {
    parameters_.setParameter("virtual_alias_maps", "");
    parameters_.addToListParameter("virtual_alias_maps", "hash:/a");
    parameters_.addToListParameter("virtual_alias_maps", "hash:/b");
    parameters_.addToListParameter("virtual_alias_maps", "hash:/a");
    EXPECT_EQ(parameters_.getParameter("virtual_alias_maps"), "hash:/a, hash:/b");
    parameters_.removeFromListParameter("virtual_alias_maps", "hash:/a");
    EXPECT_EQ(parameters_.getParameter("virtual_alias_maps"), "hash:/b");
    parameters_.removeFromListParameter("virtual_alias_maps", "hash:/b");
    EXPECT_EQ(parameters_.getParameter("virtual_alias_maps"), "");
}

TEST_F(RealPostconfTest, ClosedRelayReplacesWhateverWasThere) {
    for (const char* before : {"", "permit", "permit_mynetworks, reject_unauth_destination",
                               "check_client_access pcre:/x,reject"}) {
        parameters_.setParameter(restrictions, before);
        closeRelay();
        EXPECT_EQ(parameters_.getParameter(restrictions), closedList) << "from " << before;
    }
}

TEST_F(RealPostconfTest, ClosedRelayTwiceWritesNothingTheSecondTime) {
    parameters_.setParameter(restrictions, "");
    const FakeTool recording(postconfPath, passThrough);
    closeRelay();
    EXPECT_THAT(
        writes(recording),
        ElementsAre("[-e][smtpd_recipient_restrictions=permit_mynetworks]",
                    "[-e][smtpd_recipient_restrictions=permit_mynetworks, check_client_access "
                    "pcre:/var/spool/postfix/torva/no_relay.re]",
                    std::string("[-e][smtpd_recipient_restrictions=") + closedList + "]"));
    recording.forget();
    closeRelay();
    EXPECT_THAT(recording.calls(), ElementsAre("[-h][smtpd_recipient_restrictions]"));
    EXPECT_EQ(parameters_.getParameter(restrictions), closedList);
}

TEST_F(RealPostconfTest, OpenRelay) {
    openRelay();
    EXPECT_EQ(parameters_.getParameter(restrictions),
              "permit, check_client_access pcre:/var/spool/postfix/torva/no_relay.re, reject");
}

TEST_F(RealPostconfTest, RelayAfterAuthenticationWithoutSasl) {
    parameters_.setParameter("mynetworks",
                             "10.0.0.0/8, hash:/var/spool/postfix/torva/poplock, 172.16.0.0/12, "
                             "192.168.0.0/16, 198.51.100.0/24");
    relayAfterAuthentication(SaslAuthentication::off);
    EXPECT_EQ(parameters_.getParameter("mynetworks"),
              "10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16, 198.51.100.0/24");
    EXPECT_EQ(parameters_.getParameter("smtpd_sasl_auth_enable"), "no");
    EXPECT_EQ(parameters_.getParameter(restrictions), closedList);
}

TEST_F(RealPostconfTest, RelayAfterAuthenticationWithSasl) {
    relayAfterAuthentication(SaslAuthentication::on);
    EXPECT_EQ(parameters_.getParameter("smtpd_sasl_auth_enable"), "yes");
    EXPECT_EQ(parameters_.getParameter(restrictions),
              "permit_mynetworks, check_client_access pcre:/var/spool/postfix/torva/no_relay.re, "
              "permit_sasl_authenticated, reject_unauth_destination");
    const FakeTool recording(postconfPath, passThrough);
    relayAfterAuthentication(SaslAuthentication::on);
    EXPECT_THAT(writes(recording), ElementsAre("[-e][smtpd_sasl_auth_enable=yes]"));
}

} // namespace
