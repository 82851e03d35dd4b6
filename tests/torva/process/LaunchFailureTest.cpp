#include "torva/process/Launch.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;
using Kind = ChildStream::Kind;

class LaunchFailureTest : public ProcessTest {};
class LaunchSystemCallTest : public FailingCallTest {};

LaunchRequest program(const std::string& path) {
    LaunchRequest request;
    request.program = path;
    request.arguments = {path};
    return request;
}

// The exception of launch() and, for a child that was forked, its exit status.
std::string failureOf(const LaunchRequest& request) {
    pid_t pid = -1;
    std::string text = thrownBy([&] { launch(request, &pid); });
    if (pid != -1) {
        text += ", status " + std::to_string(WEXITSTATUS(waitForExit(pid)));
    }
    return text;
}

TEST_F(LaunchFailureTest, MissingProgramIsASystemErrorFromExecv) {
    EXPECT_EQ(relayedSystemError("execv", ENOENT) + ", status 67",
              failureOf(program("/does/not/exist")));
    try {
        pid_t pid = -1;
        try {
            launch(program("/does/not/exist"), &pid);
        } catch (...) {
            waitForExit(pid);
            throw;
        }
        ADD_FAILURE() << "launched";
    } catch (const SystemError& error) {
        EXPECT_EQ(ENOENT, error.code());
        EXPECT_STREQ("execv: No such file or directory: No such file or directory", error.what());
    }
}

TEST_F(LaunchFailureTest, EachKindOfExecIsNamed) {
    const std::vector<std::string> environment;
    LaunchRequest request = program("/etc/passwd"); // not an executable
    EXPECT_EQ(relayedSystemError("execv", EACCES) + ", status 67", failureOf(request));
    request.environment = &environment;
    EXPECT_EQ(relayedSystemError("execve", EACCES) + ", status 67", failureOf(request));
    request = program("there-is-no-such-program");
    request.searchPath = true;
    EXPECT_EQ(relayedSystemError("execvp", ENOENT) + ", status 67", failureOf(request));
}

TEST_F(LaunchFailureTest, MissingWorkingDirectoryIsASystemErrorFromChdir) {
    LaunchRequest request = program("/bin/true");
    request.workingDirectory = "/does/not/exist";
    EXPECT_EQ(relayedSystemError("cwd chdir", ENOENT) + ", status 67", failureOf(request));
}

TEST_F(LaunchFailureTest, NegativeDescriptorIsRefusedBeforeAnythingStarts) {
    const std::string before = census();
    const struct {
        ChildStream LaunchRequest::*stream;
        const char* wanted;
    } table[] = {
        {&LaunchRequest::input, "invalid_argument invalid FD for stdin"},
        {&LaunchRequest::output, "invalid_argument invalid FD for stdout"},
        {&LaunchRequest::error, "invalid_argument invalid FD for stderr"},
    };
    for (const auto& row : table) {
        for (const int fd : {-1, -5}) {
            LaunchRequest request = program("/bin/true");
            request.input = {Kind::newPipe, -1};
            request.*row.stream = {Kind::descriptor, fd};
            EXPECT_EQ(row.wanted, failureOf(request));
            EXPECT_EQ(before, census());
        }
    }
}

TEST_F(LaunchFailureTest, ClosedDescriptorFailsThroughTheRelay) {
    const struct {
        ChildStream LaunchRequest::*stream;
        const char* operation;
    } table[] = {
        {&LaunchRequest::input, "stdin dup2"},
        {&LaunchRequest::output, "stdout dup2"},
        {&LaunchRequest::error, "stderr dup2"},
    };
    for (const auto& row : table) {
        // The lowest closed numbers are the next to be opened: the control pipe
        // and the other streams must not take the place of the closed one.
        for (const int fd : nextDescriptors(8)) {
            LaunchRequest request = program("/bin/true");
            request.input = {Kind::newPipe, -1};
            request.output = {Kind::newPipe, -1};
            request.*row.stream = {Kind::descriptor, fd};
            EXPECT_EQ(relayedSystemError(row.operation, EBADF) + ", status 67", failureOf(request))
                << fd;
        }
    }
}

TEST_F(LaunchFailureTest, ClosedStandardDescriptorFailsThroughTheRelay) {
    EXPECT_EQ(relayedSystemError("stdin dup2", EBADF) + ", status 67; " +
                  relayedSystemError("stderr dup2", EBADF) + ", status 67",
              inSubprocess([](std::ostream& out) {
                  ::close(0);
                  LaunchRequest request = program("/bin/true");
                  request.input = {Kind::descriptor, 0};
                  out << failureOf(request) << "; ";
                  request.input = {};
                  request.error = {Kind::descriptor, 0};
                  out << failureOf(request);
              }));
}

struct HookRow {
    const char* name;
    void (*hook)();
    std::string wanted;
};

TEST_F(LaunchFailureTest, WhatTheHookThrowsArrivesAsItsKind) {
    const HookRow table[] = {
        {"system error", [] { throw SystemError("hook", EXDEV); },
         relayedSystemError("hook", EXDEV) + ", status 67"},
        {"runtime error", [] { throw std::runtime_error("hook"); },
         "runtime_error hook, status 66"},
        {"empty message", [] { throw std::runtime_error(""); },
         "runtime_error an error in child process, status 66"},
        {"other standard exception", [] { throw std::logic_error("hook"); },
         "exception std::exception, status 66"},
        {"anything else", [] { throw 17; }, "runtime_error unknown error, status 65"},
    };
    for (const HookRow& row : table) {
        LaunchRequest request = program("/bin/true");
        request.preExecHook = row.hook;
        EXPECT_EQ(row.wanted, failureOf(request)) << row.name;
    }
}

TEST_F(LaunchFailureTest, MessageLongerThanAReadArrivesWhole) {
    LaunchRequest request = program("/bin/true");
    request.preExecHook = [] { throw std::runtime_error(std::string(5000, 'm')); };
    EXPECT_EQ("runtime_error " + std::string(5000, 'm') + ", status 66", failureOf(request));
}

// The one pipe above the standard streams is the control pipe, when all others
// have been closed.
int controlPipe() {
    return openDescriptors().back();
}

TEST_F(LaunchFailureTest, RecordWithoutATagIsEchoedAndIsNoFailure) {
    LaunchRequest request = program("/bin/true");
    request.closeOtherDescriptors = true;
    request.preExecHook = [] {
        if (::write(controlPipe(), "hello\0there", 11) != 11) {
            throw SystemError("hook write");
        }
    };
    std::ostringstream seen;
    std::streambuf* const before = std::clog.rdbuf(seen.rdbuf());
    const std::string thrown = failureOf(request);
    std::clog.rdbuf(before);
    EXPECT_EQ("nothing, status 0", thrown);
    EXPECT_EQ("child output: hello\nchild output: there\n", seen.str());
}

TEST_F(LaunchFailureTest, ChildThatDiesBeforeExecIsForTheWaiterToSee) {
    LaunchRequest request = program("/bin/true");
    request.preExecHook = [] { ::kill(::getpid(), SIGKILL); };
    const LaunchResult child = launch(request);
    EXPECT_EQ(SIGKILL, WTERMSIG(waitForExit(child.pid)));
}

TEST_F(LaunchFailureTest, NoDescriptorIsLeftWhenTheyRunOut) {
    const Kind null = Kind::nullDevice;
    const Kind pipe = Kind::newPipe;
    const struct {
        std::size_t available;
        Kind kind;
        const char* operation;
    } table[] = {
        {0, pipe, "pipe"},
        {1, pipe, "pipe"},
        {2, pipe, "stdin pipe"},
        {3, pipe, "stdin pipe"},
        {4, pipe, "stdout pipe"},
        {5, pipe, "stdout pipe"},
        {6, pipe, "stderr pipe"},
        {7, pipe, "stderr pipe"},
        {1, null, "pipe"},
        {2, null, "stdin /dev/null open"},
        {3, null, "stdout /dev/null open"},
        {4, null, "stderr /dev/null open"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(systemError(row.operation, EMFILE) + ", left as it was",
                  inSubprocess([&](std::ostream& out) {
                      const std::vector<int> next = nextDescriptors(row.available + 1);
                      LaunchRequest request = program("/bin/true");
                      request.input = {row.kind, -1};
                      request.output = {row.kind, -1};
                      request.error = {row.kind, -1};
                      // The census needs a descriptor itself.
                      const std::string before = census();
                      rlimit limit = {};
                      ::getrlimit(RLIMIT_NOFILE, &limit);
                      const rlimit old = limit;
                      limit.rlim_cur = static_cast<rlim_t>(next.back());
                      ::setrlimit(RLIMIT_NOFILE, &limit);
                      out << failureOf(request);
                      ::setrlimit(RLIMIT_NOFILE, &old);
                      out << (before == census() ? ", left as it was" : ", changed");
                  }))
            << row.available;
    }
}

struct CallRow {
    const char* name;
    std::vector<FailingCall> calls;
    LaunchRequest request;
    std::string wanted;
};

std::string failureWith(const CallRow& row) {
    return inSubprocess([&](std::ostream& out) {
        failSystemCalls(row.calls);
        out << failureOf(row.request);
    });
}

TEST_F(LaunchSystemCallTest, EachOperationOfParentAndChildIsNamed) {
    const LaunchRequest plain = program("/bin/true");
    LaunchRequest session = plain;
    session.newSession = true;
    sigset_t mask;
    ::sigemptyset(&mask);
    LaunchRequest masked = plain;
    masked.signalMask = &mask;
    const CallRow table[] = {
        {"fork",
         {
#ifdef SYS_fork
             {SYS_fork, EAGAIN},
#endif
             {SYS_clone, EAGAIN},
             {SYS_clone3, EAGAIN}},
         plain,
         systemError("fork", EAGAIN)},
        {"close-on-exec",
         {{SYS_fcntl, EINVAL, 1, F_SETFD}},
         plain,
         relayedSystemError("control pipe close-on-exec fcntl", EINVAL) + ", status 67"},
        {"setsid",
         {{SYS_setsid, EPERM}},
         session,
         relayedSystemError("setsid", EPERM) + ", status 67"},
        {"mask",
         {{SYS_rt_sigprocmask, EINVAL, 0, SIG_SETMASK}},
         masked,
         relayedSystemError("restore sigprocmask", EINVAL) + ", status 67"},
    };
    for (const CallRow& row : table) {
        EXPECT_EQ(row.wanted, failureWith(row)) << row.name;
    }
}

TEST_F(LaunchSystemCallTest, FailedReadOfTheControlPipeIsThrownAtOnceAndLeavesTheChildToTheCaller) {
    EXPECT_EQ(systemError("control pipe read", EIO) + ", status 0",
              inSubprocess([](std::ostream& out) {
                  // A number that the program itself never reaches.
                  std::vector<Descriptor> low(20);
                  for (Descriptor& descriptor : low) {
                      descriptor = openNullDevice(O_RDONLY, "open");
                  }
                  const auto readEnd = static_cast<std::uint32_t>(nextDescriptors(1)[0]);
                  failSystemCalls({{SYS_read, EIO, 0, readEnd}});
                  out << failureOf(program("/bin/true"));
              }));
}

TEST_F(LaunchSystemCallTest, FailedCloseOfAnEndThatIsNotOursAnyMoreIsThrown) {
    // In the order of opening: the control pipe, then the stream's.
    const struct {
        const char* what;
        ChildStream LaunchRequest::*stream;
        std::size_t index;
    } table[] = {{"control pipe, read end", &LaunchRequest::input, 0},
                 {"control pipe, write end", &LaunchRequest::input, 1},
                 {"read end of the input", &LaunchRequest::input, 2},
                 {"write end of the output", &LaunchRequest::output, 3},
                 {"write end of the error", &LaunchRequest::error, 3}};
    for (const auto& row : table) {
        EXPECT_EQ(systemError("close", EIO) + ", status 0", inSubprocess([&](std::ostream& out) {
                      const int end = nextDescriptors(4)[row.index];
                      failSystemCalls({{SYS_close, EIO, 0, static_cast<std::uint32_t>(end)}});
                      LaunchRequest request = program("/bin/true");
                      request.*row.stream = {Kind::newPipe, -1};
                      out << failureOf(request);
                  }))
            << row.what;
    }
}

// Which of the descriptors 3, 10, 19, 20 and 30 are open in the child.
std::string leftOpen(const std::vector<FailingCall>& calls) {
    return inSubprocess([&](std::ostream& out) {
        for (int fd = 3; fd < 40; ++fd) {
            ::close(fd);
        }
        std::vector<Descriptor> open;
        for (const int fd : {3, 10, 19, 20, 30}) {
            open.emplace_back(::fcntl(2, F_DUPFD, fd));
        }
        failSystemCalls(calls);
        LaunchRequest request = program("/bin/sh");
        request.arguments = {"sh", "-c",
                             "for f in 3 10 19 20 30; do [ -e /proc/$$/fd/$f ] && printf ' %s' $f; "
                             "done"};
        request.output = {Kind::newPipe, -1};
        request.closeOtherDescriptors = true;
        const LaunchResult child = launch(request);
        out << readAll(child.output.get());
        waitForExit(child.pid);
    });
}

TEST_F(LaunchSystemCallTest, WithoutALimitDescriptors3To19AreClosed) {
    std::vector<FailingCall> noLimit = {{SYS_prlimit64, EPERM}};
#ifdef SYS_getrlimit
    noLimit.push_back({SYS_getrlimit, EPERM});
#endif
    EXPECT_EQ(" 20 30", leftOpen(noLimit));
    noLimit.push_back({SYS_close_range, ENOSYS});
    EXPECT_EQ(" 20 30", leftOpen(noLimit));
}

TEST_F(LaunchSystemCallTest, OtherDescriptorsAreClosedByRangeAndNotOneByOne) {
    EXPECT_EQ("", leftOpen({{SYS_close, EIO, 0, 30}}));
}

TEST_F(LaunchSystemCallTest, WithoutCloseRangeTheLoopClosesThem) {
    EXPECT_EQ("", leftOpen({{SYS_close_range, ENOSYS}}));
}

} // namespace
} // namespace torva::process
