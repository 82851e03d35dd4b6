// After a failure, a pipe leaves nothing.
#include "torva/process/Pipe.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"
#include "torva/process/Descriptor.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// What a test wants to see right before a wait for children, and do.
std::function<void()> beforeWaiting;

} // namespace

// The C library's, which this executable's own hides.
extern "C" int sigtimedwait(const sigset_t* signals, siginfo_t* info, const timespec* time) {
    if (beforeWaiting) {
        beforeWaiting();
    }
    constexpr std::size_t kernelsMask = 8; // bytes
    return static_cast<int>(::syscall(SYS_rt_sigtimedwait, signals, info, time, kernelsMask));
}

namespace torva::process {
namespace {

using namespace testing;

class PipeFailureTest : public ProcessTest {};
class PipeSystemCallTest : public FailingCallTest {};

TEST_F(PipeFailureTest, FailedExecLeavesNothingBehind) {
    const std::string before = census();
    std::string output;
    Pipe pipe;
    pipe.input = pieces({"in"});
    pipe.output = into(output);
    pipe.error = into(output);
    pipe.addProcess("/does/not/exist", {"x"});
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(before, census());
    EXPECT_EQ("", output);
    EXPECT_EQ(67, WEXITSTATUS(pipe.status(0)));
}

TEST_F(PipeFailureTest, FailedLaunchUnderAnOddMaskPutsEverythingBack) {
    EXPECT_EQ(relayedSystemError("cwd chdir", ENOENT) + ", left as it was",
              inSubprocess([](std::ostream& out) {
                  sigset_t mask;
                  ::sigemptyset(&mask);
                  ::sigaddset(&mask, SIGCHLD);
                  ::sigaddset(&mask, SIGUSR1);
                  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
                  ::signal(SIGCHLD, SIG_IGN);
                  const std::string before = census();
                  Pipe pipe;
                  pipe.workingDirectory = "/does/not/exist";
                  pipe.addProcess("/bin/sh", shell("exit 0"));
                  out << thrownBy([&] { pipe.launch(); });
                  out << (census() == before ? ", left as it was" : ", changed");
              }));
}

TEST_F(PipeFailureTest, AnotherPipeCanRunAfterAFailedOne) {
    Pipe pipe;
    pipe.addProcess("/does/not/exist", {"x"});
    EXPECT_NE("nothing", thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(3, runScript("exit 3").exited());
}

TEST_F(PipeFailureTest, ProcessesStartedBeforeTheFailingOneEnd) {
    const std::string before = census();
    std::string output;
    Pipe pipe;
    pipe.input = pieces({"never read"});
    pipe.addProcess("/bin/sh", shell("cat >/dev/null; exit 5"));
    pipe.addProcess("/bin/sh", shell("exit 6"));
    pipe.addProcess("/does/not/exist", {"x"});
    pipe.addProcess("/bin/sh", shell("exit 8"));
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(before, census());
    EXPECT_EQ(5, WEXITSTATUS(pipe.status(0))) << "it saw the end of its input";
    EXPECT_EQ(6, WEXITSTATUS(pipe.status(1)));
    EXPECT_EQ(67, WEXITSTATUS(pipe.status(2)));
    EXPECT_EQ(-1, pipe.pid(3)) << "it was never started";
}

TEST_F(PipeFailureTest, ProcessThatDoesNotEndByItselfIsTerminated) {
    Pipe pipe;
    pipe.addProcess("/bin/sleep", {"sleep", "1000"});
    pipe.addProcess("/does/not/exist", {"x"});
    EXPECT_EQ(relayedSystemError("execv", ENOENT), thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(SIGTERM, WTERMSIG(pipe.status(0)));
}

TEST_F(PipeFailureTest, ThrowingProducerLeavesNothingBehind) {
    const std::string before = census();
    std::size_t calls = 0;
    Pipe pipe;
    std::string output;
    pipe.input = [&calls](std::vector<char>& buffer) -> bool {
        if (++calls == 3) {
            throw std::runtime_error("producer");
        }
        buffer.assign({'x', '\n'});
        return true;
    };
    pipe.output = into(output);
    pipe.addProcess("/bin/sh", shell("cat >/dev/null; exit 7"));
    EXPECT_EQ("runtime_error producer", thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(before, census());
    EXPECT_EQ(7, WEXITSTATUS(pipe.status(0))) << "it was let to end by itself";
}

TEST_F(PipeFailureTest, ThrowingConsumersLeaveNothingBehind) {
    const std::string before = census();
    for (OutputConsumer CommonFlags::*const stream : {&CommonFlags::output, &CommonFlags::error}) {
        Pipe pipe;
        pipe.input = pieces({"in"});
        std::string other;
        pipe.output = into(other);
        pipe.error = into(other);
        pipe.*stream = [](const std::vector<char>&) { throw 17; };
        pipe.addProcess("/bin/sh", shell("echo output; echo error >&2; exec cat >/dev/null"));
        EXPECT_EQ("something else", thrownBy([&] { pipe.launch(); }));
        EXPECT_EQ(before, census());
    }
}

TEST_F(PipeFailureTest, ThrowingConsumerOfAFloodingChildLeavesNothingBehind) {
    Pipe pipe;
    pipe.output = [](const std::vector<char>&) { throw std::runtime_error("consumer"); };
    pipe.addProcess("/bin/cat", {"cat", "/dev/zero"});
    EXPECT_EQ("runtime_error consumer", thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(SIGPIPE, WTERMSIG(pipe.status(0)));
}

TEST_F(PipeFailureTest, SigchldIsBlockedAgainBeforeTheChildrenAreSeenToTheirEnd) {
    // Else the handler takes the signal that the wait is for, and it waits in vain.
    Pipe pipe;
    bool waited = false;
    beforeWaiting = [&] {
        waited = true;
        sigset_t mask;
        ::sigprocmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(1, ::sigismember(&mask, SIGCHLD));
        ::kill(pipe.pid(0), SIGKILL);
    };
    pipe.output = [](const std::vector<char>&) { throw std::runtime_error("consumer"); };
    pipe.addProcess("/bin/sh", shell("echo; exec sleep 1000"));
    EXPECT_EQ("runtime_error consumer", thrownBy([&] { pipe.launch(); }));
    beforeWaiting = nullptr;
    EXPECT_TRUE(waited);
    EXPECT_EQ(SIGKILL, WTERMSIG(pipe.status(0)));
}

TEST_F(PipeFailureTest, ThrowAfterTheChildHasEndedKeepsItsStatus) {
    Pipe pipe;
    pipe.output = [](const std::vector<char>& chunk) {
        if (chunk.front() == 'l') {
            throw std::runtime_error("consumer");
        }
    };
    pipe.addProcess("/bin/sh", shell("(sleep 0.3; echo late) & echo now; exit 7"));
    EXPECT_EQ("runtime_error consumer", thrownBy([&] { pipe.launch(); }));
    EXPECT_EQ(7, WEXITSTATUS(pipe.status(0)));
}

// The numbers of the descriptors of a run with an input and an output, in the order
// of opening.
struct Numbers {
    explicit Numbers(const std::vector<int>& next)
        : wake(next[0]), control(next[2]), input(next[5]), output(next[6]) {}
    int wake;    // read end of the catcher's pipe
    int control; // read end of the control pipe
    int input;   // our end of the input
    int output;  // our end of the output
};

using CallsFor = std::function<std::vector<FailingCall>(const Numbers& numbers)>;

FailingCall on(int fd, long number, int error) {
    return {number, error, 0, static_cast<std::uint32_t>(fd)};
}

// What a run ends with when calls fail from its start, or from the first output.
std::string runWith(const CallsFor& calls, bool fromFirstOutput = false) {
    return inSubprocess([&](std::ostream& out) {
        // The program itself gets low numbers, where nothing fails.
        std::vector<Descriptor> low(20);
        for (Descriptor& descriptor : low) {
            descriptor = openNullDevice(O_RDONLY, "open");
        }
        const std::vector<FailingCall> failing = calls(Numbers(nextDescriptors(8)));
        Pipe pipe;
        pipe.input = pieces({"in"});
        pipe.output = [&](const std::vector<char>&) {
            if (fromFirstOutput) {
                failSystemCalls(failing);
            }
        };
        pipe.addProcess("/bin/cat", {"cat"});
        if (!fromFirstOutput) {
            failSystemCalls(failing);
        }
        const std::string before = census();
        out << thrownBy([&] { pipe.launch(); });
        out << (census() == before ? ", left as it was" : ", changed");
    });
}

TEST_F(PipeSystemCallTest, EveryFailureIsNamedAndLeavesNothing) {
    const struct {
        std::string operation;
        int error;
        CallsFor calls;
    } table[] = {
        {"sigaction", EINVAL,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_rt_sigaction, EINVAL, 0, SIGPIPE}};
         }},
        {"sigaction", EINVAL,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_rt_sigaction, EINVAL, 0, SIGCHLD}};
         }},
        {"set sigprocmask", EINVAL,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_rt_sigprocmask, EINVAL, 2, 0}};
         }},
        {"process set catcher control pipe", EMFILE,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_pipe2, EMFILE}};
         }},
        {"control pipe fcntl", EINVAL,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_fcntl, EINVAL, 1, F_SETFL}};
         }},
        {"fork", EAGAIN,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_clone, EAGAIN}, {SYS_clone3, EAGAIN}};
         }},
        {"control pipe read", EIO,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.control, SYS_read, EIO)};
         }},
        {"fcntl", EINVAL,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.input, SYS_fcntl, EINVAL)};
         }},
        {"fcntl", EINVAL,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.output, SYS_fcntl, EINVAL)};
         }},
        {"select", ENOMEM,
         [](const Numbers&) -> std::vector<FailingCall> {
             return {{SYS_pselect6, ENOMEM}};
         }},
        {"write", ENOSPC,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.input, SYS_write, ENOSPC)};
         }},
        {"read", EIO,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.output, SYS_read, EIO)};
         }},
        {"read", EIO,
         [](const Numbers& numbers) -> std::vector<FailingCall> {
             return {on(numbers.wake, SYS_read, EIO)};
         }},
    };
    for (const auto& row : table) {
        EXPECT_EQ(systemError(row.operation, row.error) + ", left as it was", runWith(row.calls));
    }
}

TEST_F(PipeSystemCallTest, FailureWhileServingLeavesNothing) {
    EXPECT_EQ(systemError("select", ENOMEM) + ", left as it was",
              runWith(
                  [](const Numbers&) -> std::vector<FailingCall> {
                      return {{SYS_pselect6, ENOMEM}};
                  },
                  true));
}

// For failures after which there is no census either.
std::string thrownWith(const CallsFor& calls) {
    const std::string text = runWith(calls, true);
    return text.substr(0, text.find(", "));
}

// What cannot be restored is named anyway.
TEST_F(PipeSystemCallTest, FailureToPutSomethingBackIsNamed) {
    EXPECT_EQ(systemError("restore sigprocmask", EINVAL),
              thrownWith([](const Numbers&) -> std::vector<FailingCall> {
                  return {{SYS_rt_sigprocmask, EINVAL, 0, SIG_SETMASK}};
              }));
    EXPECT_EQ(systemError("restore sigaction", EINVAL),
              thrownWith([](const Numbers&) -> std::vector<FailingCall> {
                  return {{SYS_rt_sigaction, EINVAL, 0, SIGCHLD}};
              }));
    EXPECT_EQ(systemError("restore sigaction", EINVAL),
              thrownWith([](const Numbers&) -> std::vector<FailingCall> {
                  return {{SYS_rt_sigaction, EINVAL, 0, SIGPIPE}};
              }));
    EXPECT_EQ(systemError("pipe read-end close", EIO),
              thrownWith([](const Numbers& numbers) -> std::vector<FailingCall> {
                  return {on(numbers.output, SYS_close, EIO)};
              }));
}

} // namespace
} // namespace torva::process
