#include "torva/process/Launch.h"

#include "ProcessFixture.h"
#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SignalGuards.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using Kind = ChildStream::Kind;

class LaunchTest : public ProcessTest {};

LaunchRequest launchScript(const std::string& text) {
    LaunchRequest request;
    request.program = "/bin/sh";
    request.arguments = {"sh", "-c", text};
    return request;
}

// Output and exit status of a request whose standard output is a new pipe.
std::string outputOfLaunch(LaunchRequest request, int* status = nullptr) {
    request.output = {Kind::newPipe, -1};
    LaunchResult child = launch(request);
    std::string text = readAll(child.output.get());
    const int ended = waitForExit(child.pid);
    if (status != nullptr) {
        *status = ended;
    }
    return text;
}

TEST_F(LaunchTest, SuccessfulExecAnswersThePidWithoutAnyRecord) {
    ::testing::internal::CaptureStderr();
    pid_t forked = -1;
    const LaunchResult child = launch(launchScript("exit 7"), &forked);
    EXPECT_GT(child.pid, 0);
    EXPECT_EQ(child.pid, forked);
    EXPECT_FALSE(child.input);
    EXPECT_FALSE(child.output);
    EXPECT_FALSE(child.error);
    EXPECT_EQ(7, WEXITSTATUS(waitForExit(child.pid)));
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
}

TEST_F(LaunchTest, WaitForExitAnswersTheRawStatus) {
    const LaunchResult child = launch(launchScript("kill -TERM $$"));
    const int status = waitForExit(child.pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

TEST_F(LaunchTest, WaitingForNobodyIsAnError) {
    EXPECT_EQ(systemError("unable to wait for child process exit", ECHILD),
              thrownBy([] { waitForExit(::getpid()); }));
}

TEST_F(LaunchTest, WaitForExitGoesOnAfterSignals) {
    EXPECT_EQ("3 interrupted", inSubprocess([](std::ostream& out) {
                  static volatile std::sig_atomic_t alarms = 0;
                  struct sigaction action = {};
                  action.sa_handler = [](int) { alarms = alarms + 1; };
                  ::sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
                  const LaunchResult child =
                      launch(launchScript("sleep 0.1; kill -USR1 $PPID; sleep 0.1; exit 3"));
                  out << WEXITSTATUS(waitForExit(child.pid));
                  out << (alarms > 0 ? " interrupted" : " not interrupted");
              }));
}

TEST_F(LaunchTest, NewPipesConnectAllThreeStreams) {
    LaunchRequest request = launchScript("cat; echo problem >&2");
    request.input = {Kind::newPipe, -1};
    request.output = {Kind::newPipe, -1};
    request.error = {Kind::newPipe, -1};
    LaunchResult child = launch(request);
    ASSERT_EQ(4, ::write(child.input.get(), "text", 4));
    child.input.release();
    EXPECT_EQ("text", readAll(child.output.get()));
    EXPECT_EQ("problem\n", readAll(child.error.get()));
    EXPECT_EQ(0, waitForExit(child.pid));
}

TEST_F(LaunchTest, OurPipeEndsAreCloseOnExec) {
    LaunchRequest request = launchScript("cat >/dev/null");
    request.input = {Kind::newPipe, -1};
    LaunchResult child = launch(request);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(child.input.get(), F_GETFD));
    child.input.release();
    waitForExit(child.pid);
}

TEST_F(LaunchTest, NullDeviceIsReadOnlyForInputAndWriteOnlyForOutput) {
    LaunchRequest request = launchScript("grep -h flags /proc/self/fdinfo/0 /proc/$$/fdinfo/2; "
                                         "readlink /proc/$$/fd/0 /proc/$$/fd/2");
    request.input = {Kind::nullDevice, -1};
    request.error = {Kind::nullDevice, -1};
    // Octal access mode, large files apart: 0 read-only, 1 write-only.
    EXPECT_EQ("flags:\t0100000\nflags:\t0100001\n/dev/null\n/dev/null\n", outputOfLaunch(request));
    request = launchScript("leads=$(readlink /proc/$$/fd/1); echo $leads >&2");
    request.output = {Kind::nullDevice, -1};
    request.error = {Kind::newPipe, -1};
    LaunchResult child = launch(request);
    EXPECT_EQ("/dev/null\n", readAll(child.error.get()));
    waitForExit(child.pid);
}

TEST_F(LaunchTest, ArgumentsArriveAsTheyAre) {
    LaunchRequest request;
    request.program = "/bin/sh";
    request.arguments = {"a name", "-c", "printf '<%s>' \"$0\" \"$@\"", "zero", "", "a b",
                         "*",      "\"'"};
    EXPECT_EQ("<zero><><a b><*><\"'>", outputOfLaunch(request));
}

TEST_F(LaunchTest, EnvironmentReplacesTheParentsAndNoneKeepsIt) {
    ::setenv("TORVA_TEST", "parent", 1);
    const std::vector<std::string> environment = {"ONLY=this", "TWO=a b"};
    LaunchRequest request;
    request.program = "/usr/bin/env";
    request.arguments = {"env"};
    EXPECT_THAT(outputOfLaunch(request), ::testing::HasSubstr("TORVA_TEST=parent\n"));
    request.environment = &environment;
    EXPECT_EQ("ONLY=this\nTWO=a b\n", outputOfLaunch(request));
    const std::vector<std::string> nothing;
    request.environment = &nothing;
    EXPECT_EQ("", outputOfLaunch(request));
    ::unsetenv("TORVA_TEST");
}

TEST_F(LaunchTest, SearchPathFindsTheProgramWithoutAnEnvironmentOnly) {
    LaunchRequest request = launchScript("echo found");
    request.program = "sh";
    request.searchPath = true;
    EXPECT_EQ("found\n", outputOfLaunch(request));
    const std::vector<std::string> environment = {"PATH=/bin"};
    request.environment = &environment;
    pid_t pid = -1;
    EXPECT_EQ(relayedSystemError("execve", ENOENT), thrownBy([&] { launch(request, &pid); }));
    EXPECT_EQ(67, WEXITSTATUS(waitForExit(pid)));
}

TEST_F(LaunchTest, WorkingDirectoryIsTheChildsOnly) {
    char before[4096];
    ASSERT_NE(nullptr, ::getcwd(before, sizeof(before)));
    LaunchRequest request = launchScript("pwd -P");
    EXPECT_EQ(before + std::string("\n"), outputOfLaunch(request));
    request.workingDirectory = "/proc/sys";
    EXPECT_EQ("/proc/sys\n", outputOfLaunch(request));
    char after[4096];
    ASSERT_NE(nullptr, ::getcwd(after, sizeof(after)));
    EXPECT_STREQ(before, after);
}

TEST_F(LaunchTest, NewSessionMakesTheChildItsLeader) {
    LaunchRequest request = launchScript("cut -d' ' -f6 /proc/$$/stat; echo $$");
    const auto lines = [](const std::string& text) {
        std::istringstream in(text);
        std::pair<std::string, std::string> both;
        std::getline(in, both.first);
        std::getline(in, both.second);
        return both;
    };
    const auto inherited = lines(outputOfLaunch(request));
    EXPECT_EQ(std::to_string(::getsid(0)), inherited.first);
    request.newSession = true;
    const auto own = lines(outputOfLaunch(request));
    EXPECT_EQ(own.second, own.first);
    EXPECT_NE("", own.first);
}

TEST_F(LaunchTest, PreExecHookRunsInTheChildAfterEverythingElse) {
    LaunchRequest request = launchScript("echo $HOOK");
    request.workingDirectory = "/proc/sys";
    request.preExecHook = [] {
        char directory[4096];
        ::setenv("HOOK", ::getcwd(directory, sizeof(directory)), 1);
    };
    EXPECT_EQ("/proc/sys\n", outputOfLaunch(request));
    EXPECT_EQ(nullptr, ::getenv("HOOK"));
}

TEST_F(LaunchTest, HookCanWaitForChildrenOfItsOwnWhileACatcherIsInstalled) {
    ProcessSet children(1);
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    LaunchRequest request = launchScript("exit 0");
    request.signalMask = &sigchld.previous();
    request.preExecHook = [] {
        const pid_t own = ::fork();
        if (own == 0) {
            ::_exit(3);
        }
        siginfo_t info = {};
        ::waitid(P_PID, static_cast<id_t>(own), &info, WEXITED | WNOWAIT);
        ::raise(SIGCHLD); // at the latest: the handler has had its turn
        if (WEXITSTATUS(waitForExit(own)) != 3) {
            throw std::runtime_error("other status");
        }
    };
    pid_t pid = -1;
    EXPECT_EQ("nothing", thrownBy([&] { launch(request, &pid); }));
    EXPECT_EQ(0, waitForExit(pid));
    catcher.remove();
}

TEST_F(LaunchTest, GivenMaskIsTheProgramsAndTheHooks) {
    sigset_t mask;
    ::sigemptyset(&mask);
    ::sigaddset(&mask, SIGUSR2);
    LaunchRequest request;
    request.program = "/bin/grep"; // a shell clears its mask
    request.arguments = {"grep", "SigBlk", "/proc/self/status"};
    request.signalMask = &mask;
    EXPECT_EQ("SigBlk:\t0000000000000800\n", outputOfLaunch(request));
    request = launchScript("exit $HOOK");
    request.signalMask = &mask;
    request.preExecHook = [] {
        sigset_t seen;
        ::sigprocmask(SIG_SETMASK, nullptr, &seen);
        ::setenv("HOOK", ::sigismember(&seen, SIGUSR2) == 1 ? "1" : "0", 1);
    };
    int status = 0;
    outputOfLaunch(request, &status);
    EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(LaunchTest, LostChildrenAreWaitedForAndErrnoStays) {
    for (const int status : {0, 5}) {
        if (::fork() == 0) {
            ::usleep(20000);
            ::_exit(status);
        }
    }
    errno = ENOSPC;
    waitForLostChildren();
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    waitForLostChildren(); // none: returns
}

} // namespace
} // namespace torva::process
