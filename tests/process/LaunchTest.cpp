#include "process/Launch.h"

#include "ProcessFixture.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <iostream>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using Kind = ChildStream::Kind;

class LaunchTest : public ProcessTest {};

LaunchRequest script(const std::string& text) {
    LaunchRequest request;
    request.program = "/bin/sh";
    request.arguments = {"sh", "-c", text};
    return request;
}

// Output and exit status of a request whose standard output is a new pipe.
std::string outputOf(LaunchRequest request, int* status = nullptr) {
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
    const LaunchResult child = launch(script("exit 7"), &forked);
    EXPECT_GT(child.pid, 0);
    EXPECT_EQ(child.pid, forked);
    EXPECT_FALSE(child.input);
    EXPECT_FALSE(child.output);
    EXPECT_FALSE(child.error);
    EXPECT_EQ(7, WEXITSTATUS(waitForExit(child.pid)));
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
}

TEST_F(LaunchTest, WaitForExitAnswersTheRawStatus) {
    const LaunchResult child = launch(script("kill -TERM $$"));
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
                      launch(script("sleep 0.1; kill -USR1 $PPID; sleep 0.1; exit 3"));
                  out << WEXITSTATUS(waitForExit(child.pid));
                  out << (alarms > 0 ? " interrupted" : " not interrupted");
              }));
}

TEST_F(LaunchTest, NewPipesConnectAllThreeStreams) {
    LaunchRequest request = script("cat; echo problem >&2");
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
    LaunchRequest request = script("cat >/dev/null");
    request.input = {Kind::newPipe, -1};
    LaunchResult child = launch(request);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(child.input.get(), F_GETFD));
    child.input.release();
    waitForExit(child.pid);
}

TEST_F(LaunchTest, NullDeviceIsReadOnlyForInputAndWriteOnlyForOutput) {
    LaunchRequest request = script("grep -h flags /proc/self/fdinfo/0 /proc/$$/fdinfo/2; "
                                   "readlink /proc/$$/fd/0 /proc/$$/fd/2");
    request.input = {Kind::nullDevice, -1};
    request.error = {Kind::nullDevice, -1};
    // Octal access mode, large files apart: 0 read-only, 1 write-only.
    EXPECT_EQ("flags:\t0100000\nflags:\t0100001\n/dev/null\n/dev/null\n", outputOf(request));
    request = script("leads=$(readlink /proc/$$/fd/1); echo $leads >&2");
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
    EXPECT_EQ("<zero><><a b><*><\"'>", outputOf(request));
}

TEST_F(LaunchTest, EnvironmentReplacesTheParentsAndNoneKeepsIt) {
    ::setenv("TORVA_TEST", "parent", 1);
    const std::vector<std::string> environment = {"ONLY=this", "TWO=a b"};
    LaunchRequest request;
    request.program = "/usr/bin/env";
    request.arguments = {"env"};
    EXPECT_THAT(outputOf(request), ::testing::HasSubstr("TORVA_TEST=parent\n"));
    request.environment = &environment;
    EXPECT_EQ("ONLY=this\nTWO=a b\n", outputOf(request));
    const std::vector<std::string> nothing;
    request.environment = &nothing;
    EXPECT_EQ("", outputOf(request));
    ::unsetenv("TORVA_TEST");
}

TEST_F(LaunchTest, SearchPathFindsTheProgramWithoutAnEnvironmentOnly) {
    LaunchRequest request = script("echo found");
    request.program = "sh";
    request.searchPath = true;
    EXPECT_EQ("found\n", outputOf(request));
    const std::vector<std::string> environment = {"PATH=/bin"};
    request.environment = &environment;
    pid_t pid = -1;
    EXPECT_EQ(relayedSystemError("execve", ENOENT), thrownBy([&] { launch(request, &pid); }));
    EXPECT_EQ(67, WEXITSTATUS(waitForExit(pid)));
}

TEST_F(LaunchTest, WorkingDirectoryIsTheChildsOnly) {
    char before[4096];
    ASSERT_NE(nullptr, ::getcwd(before, sizeof(before)));
    LaunchRequest request = script("pwd -P");
    EXPECT_EQ(before + std::string("\n"), outputOf(request));
    request.workingDirectory = "/proc/sys";
    EXPECT_EQ("/proc/sys\n", outputOf(request));
    char after[4096];
    ASSERT_NE(nullptr, ::getcwd(after, sizeof(after)));
    EXPECT_STREQ(before, after);
}

TEST_F(LaunchTest, NewSessionMakesTheChildItsLeader) {
    LaunchRequest request = script("cut -d' ' -f6 /proc/$$/stat; echo $$");
    const auto lines = [](const std::string& text) {
        std::istringstream in(text);
        std::pair<std::string, std::string> both;
        std::getline(in, both.first);
        std::getline(in, both.second);
        return both;
    };
    const auto inherited = lines(outputOf(request));
    EXPECT_EQ(std::to_string(::getsid(0)), inherited.first);
    request.newSession = true;
    const auto own = lines(outputOf(request));
    EXPECT_EQ(own.second, own.first);
    EXPECT_NE("", own.first);
}

TEST_F(LaunchTest, PreExecHookRunsInTheChildAfterEverythingElse) {
    LaunchRequest request = script("echo $HOOK");
    request.workingDirectory = "/proc/sys";
    request.preExecHook = [] {
        char directory[4096];
        ::setenv("HOOK", ::getcwd(directory, sizeof(directory)), 1);
    };
    EXPECT_EQ("/proc/sys\n", outputOf(request));
    EXPECT_EQ(nullptr, ::getenv("HOOK"));
}

TEST_F(LaunchTest, GivenMaskIsTheProgramsAndTheHooks) {
    sigset_t mask;
    ::sigemptyset(&mask);
    ::sigaddset(&mask, SIGUSR2);
    LaunchRequest request;
    request.program = "/bin/grep"; // a shell clears its mask
    request.arguments = {"grep", "SigBlk", "/proc/self/status"};
    request.signalMask = &mask;
    EXPECT_EQ("SigBlk:\t0000000000000800\n", outputOf(request));
    request = script("exit $HOOK");
    request.signalMask = &mask;
    request.preExecHook = [] {
        sigset_t seen;
        ::sigprocmask(SIG_SETMASK, nullptr, &seen);
        ::setenv("HOOK", ::sigismember(&seen, SIGUSR2) == 1 ? "1" : "0", 1);
    };
    int status = 0;
    outputOf(request, &status);
    EXPECT_EQ(1, WEXITSTATUS(status));
}

// The numbers that "ls /proc/self/fd" shows: what is inherited, and its own.
std::set<int> listedDescriptors(const std::string& text) {
    std::set<int> numbers;
    std::istringstream in(text);
    for (int number = 0; in >> number;) {
        numbers.insert(number);
    }
    return numbers;
}

TEST_F(LaunchTest, ChildInheritsNothingOfWhatWasOpenedForIt) {
    std::set<int> wanted;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fd < 3 || ::fcntl(fd, F_GETFD) == 0) {
            wanted.insert(fd);
        }
    }
    for (int own = 0;; ++own) {
        if (wanted.insert(own).second) {
            break; // the directory that the lister has open
        }
    }
    LaunchRequest request = script("exec ls /proc/self/fd");
    request.input = {Kind::newPipe, -1};
    request.error = {Kind::nullDevice, -1};
    EXPECT_EQ(wanted, listedDescriptors(outputOf(request)));
}

TEST_F(LaunchTest, CloseOtherDescriptorsClosesEverythingFromThreeUp) {
    LaunchRequest request = script("exec ls /proc/self/fd");
    std::vector<Descriptor> inherited; // on both sides of the control pipe
    for (const int lowest : {3, 50, 900}) {
        inherited.emplace_back(::fcntl(0, F_DUPFD, lowest));
    }
    EXPECT_GT(listedDescriptors(outputOf(request)).size(), 6u);
    request.closeOtherDescriptors = true;
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), listedDescriptors(outputOf(request)));
}

TEST_F(LaunchTest, CloseOtherDescriptorsKeepsTheControlPipe) {
    LaunchRequest request;
    request.program = "/does/not/exist";
    request.arguments = {"x"};
    request.closeOtherDescriptors = true;
    pid_t pid = -1;
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { launch(request, &pid); }));
    waitForExit(pid);
}

// Where the child's streams lead when this process has its own streams on two
// pipes and gives them away; each line is "which pipe: text".
std::string givenAway(int outputFd, int errorFd) {
    return inSubprocess([&](std::ostream& out) {
        PipeEnds first = openPipe("pipe");
        PipeEnds second = openPipe("pipe");
        ::dup3(first.write.get(), 1, O_CLOEXEC);
        ::dup3(second.write.get(), 2, O_CLOEXEC);
        LaunchRequest request = script("echo output; echo error >&2");
        if (outputFd != -1) {
            request.output = {Kind::descriptor, outputFd};
        }
        if (errorFd != -1) {
            request.error = {Kind::descriptor, errorFd};
        }
        const LaunchResult child = launch(request);
        out << WEXITSTATUS(waitForExit(child.pid)) << " ";
        ::close(1);
        ::close(2);
        first.write.release();
        second.write.release();
        out << "first: " << readAll(first.read.get()) << "second: " << readAll(second.read.get());
    });
}

TEST_F(LaunchTest, StandardDescriptorsOfTheParentCanBeGivenInAnyOrder) {
    EXPECT_EQ("0 first: error\nsecond: output\n", givenAway(2, 1)) << "exchanged";
    EXPECT_EQ("0 first: output\nsecond: error\n", givenAway(1, 2)) << "in place, close-on-exec";
    EXPECT_EQ("0 first: output\nerror\nsecond: ", givenAway(1, 1)) << "one for both";
    EXPECT_EQ("0 first: second: output\nerror\n", givenAway(2, 2)) << "the other for both";
}

TEST_F(LaunchTest, StreamThatIsGivenAwayStaysWhereItIsInheritedToo) {
    EXPECT_EQ("out error", inSubprocess([](std::ostream& out) {
                  PipeEnds ends = openPipe("pipe");
                  ::dup2(ends.write.get(), 2);
                  LaunchRequest request = script("printf 'out '; printf error >&2");
                  request.output = {Kind::descriptor, 2};
                  const LaunchResult child = launch(request);
                  waitForExit(child.pid);
                  ::close(2);
                  ends.write.release();
                  out << readAll(ends.read.get());
              }));
}

TEST_F(LaunchTest, OneDescriptorServesSeveralStreamsAndIsClosedOnceInTheChild) {
    PipeEnds ends = openPipe("pipe");
    // Without close-on-exec: only the child's own closing takes it away.
    const Descriptor shared(::fcntl(ends.write.get(), F_DUPFD, 40));
    LaunchRequest request = script("echo output; echo error >&2; [ -e /proc/$$/fd/" +
                                   std::to_string(shared.get()) + " ] && echo open");
    request.output = {Kind::descriptor, shared.get()};
    request.error = {Kind::descriptor, shared.get()};
    const LaunchResult child = launch(request);
    waitForExit(child.pid);
    EXPECT_NE(-1, ::fcntl(shared.get(), F_GETFD)) << "it is the caller's";
    ends.write.release();
    ::close(shared.get());
    EXPECT_EQ("output\nerror\n", readAll(ends.read.get()));
    ::dup2(0, shared.get()); // for the holder to close
}

TEST_F(LaunchTest, EveryCombinationOfClosedStandardStreamsWorks) {
    for (int closed = 0; closed < 8; ++closed) {
        for (const Kind kind : {Kind::inherited, Kind::nullDevice, Kind::newPipe}) {
            const std::string shown = inSubprocess([&](std::ostream& out) {
                for (const int fd : {0, 1, 2}) {
                    if ((closed & (1 << fd)) != 0) {
                        ::close(fd);
                    }
                }
                // The status tells which of the three are open in the child.
                LaunchRequest request = script("s=0; n=1; for f in 0 1 2; do "
                                               "[ -e /proc/$$/fd/$f ] && s=$((s+n)); n=$((n*2)); "
                                               "done; exit $s");
                request.input = {kind, -1};
                request.output = {kind, -1};
                request.error = {kind, -1};
                const LaunchResult child = launch(request);
                out << WEXITSTATUS(waitForExit(child.pid));
                for (const int fd : {0, 1, 2}) {
                    out << (::fcntl(fd, F_GETFD) == -1 ? "c" : "o");
                }
            });
            const int open = kind == Kind::inherited ? 7 - closed : 7;
            std::string wanted = std::to_string(open);
            for (const int fd : {0, 1, 2}) {
                wanted += (closed & (1 << fd)) != 0 ? "c" : "o";
            }
            EXPECT_EQ(wanted, shown) << "closed " << closed;
        }
    }
}

TEST_F(LaunchTest, BufferedOutputIsNotPrintedTwiceByAFailingChild) {
    char name[] = "/tmp/launch-test-XXXXXX";
    const Descriptor file(::mkstemp(name));
    ASSERT_TRUE(file);
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  ::dup2(file.get(), 1);
                  ::dup2(file.get(), 2);
                  std::fputs("stdio ", stdout);
                  std::cout << "cout ";
                  std::clog << "clog ";
                  LaunchRequest request;
                  request.program = "/does/not/exist";
                  request.arguments = {"x"};
                  pid_t pid = -1;
                  thrownBy([&] { launch(request, &pid); });
                  waitForExit(pid);
                  std::fflush(nullptr);
              }));
    ::lseek(file.get(), 0, SEEK_SET);
    const std::string text = readAll(file.get());
    for (const std::string word : {"stdio ", "cout ", "clog "}) {
        EXPECT_NE(std::string::npos, text.find(word)) << text;
        EXPECT_EQ(text.find(word), text.rfind(word)) << text;
    }
    ::unlink(name);
}

TEST_F(LaunchTest, FailingChildEndsWithExitAndRunsItsExitHandlers) {
    PipeEnds ends = openPipe("pipe");
    EXPECT_EQ("", inSubprocess([&](std::ostream&) {
                  static int fd = ends.write.get();
                  std::atexit([] { ::write(fd, "handler", 7) == 7 ? void() : std::abort(); });
                  LaunchRequest request;
                  request.program = "/does/not/exist";
                  request.arguments = {"x"};
                  pid_t pid = -1;
                  thrownBy([&] { launch(request, &pid); });
                  waitForExit(pid);
              }));
    ends.write.release();
    EXPECT_EQ("handler", readAll(ends.read.get()));
}

} // namespace
} // namespace torva::process
