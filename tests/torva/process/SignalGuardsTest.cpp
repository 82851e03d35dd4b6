#include "torva/process/SignalGuards.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"
#include "torva/process/Descriptor.h"

#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class SignalGuardsTest : public ProcessTest {};
class SignalGuardsFailureTest : public FailingCallTest {};

bool blocked(int signal) {
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

void block(int signal) {
    sigset_t mask;
    ::sigemptyset(&mask);
    ::sigaddset(&mask, signal);
    ::sigprocmask(SIG_BLOCK, &mask, nullptr);
}

void (*handlerOf(int signal))(int) {
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

TEST_F(SignalGuardsTest, SigchldIsBlockedForTheLifeOfTheGuard) {
    {
        const SigchldBlock guard;
        EXPECT_TRUE(blocked(SIGCHLD));
    }
    EXPECT_FALSE(blocked(SIGCHLD));
}

TEST_F(SignalGuardsTest, AllowLetsSigchldThroughAndKeepsTheRestOfTheMask) {
    EXPECT_EQ("01 11 01", inSubprocess([](std::ostream& out) {
                  block(SIGUSR1);
                  SigchldBlock guard;
                  guard.allow();
                  out << blocked(SIGCHLD) << blocked(SIGUSR1) << " ";
                  guard.blockAgain();
                  out << blocked(SIGCHLD) << blocked(SIGUSR1) << " ";
                  guard.restore();
                  out << blocked(SIGCHLD) << blocked(SIGUSR1);
              }));
}

TEST_F(SignalGuardsTest, MaskThatBlockedSigchldBeforeComesBackExactly) {
    EXPECT_EQ("0 1 same", inSubprocess([](std::ostream& out) {
                  block(SIGCHLD);
                  const std::string before = census();
                  SigchldBlock guard;
                  guard.allow();
                  out << blocked(SIGCHLD) << " ";
                  guard.restore();
                  out << blocked(SIGCHLD) << " " << (census() == before ? "same" : "changed");
              }));
}

TEST_F(SignalGuardsTest, DefaultSigpipeGetsAnEmptyHandlerAndComesBack) {
    PipeEnds ends = openPipe("pipe");
    ends.read.release();
    {
        SigpipeGuard guard;
        EXPECT_NE(SIG_DFL, handlerOf(SIGPIPE));
        EXPECT_NE(SIG_IGN, handlerOf(SIGPIPE));
        struct sigaction action = {};
        ::sigaction(SIGPIPE, nullptr, &action);
        EXPECT_NE(0, action.sa_flags & SA_RESTART) << "it would interrupt the caller's callbacks";
        EXPECT_EQ(-1, ::write(ends.write.get(), "x", 1));
        EXPECT_EQ(EPIPE, errno);
        guard.restore();
        EXPECT_EQ(SIG_DFL, handlerOf(SIGPIPE));
    }
    EXPECT_EQ(SIG_DFL, handlerOf(SIGPIPE));
}

TEST_F(SignalGuardsTest, RestoredSigpipeIsTheCallersOwnAgain) {
    EXPECT_EQ("same", inSubprocess([](std::ostream& out) {
                  {
                      SigpipeGuard guard;
                      guard.restore();
                      ::signal(SIGPIPE, SIG_IGN);
                  }
                  out << (handlerOf(SIGPIPE) == SIG_IGN ? "same" : "changed");
              }));
}

TEST_F(SignalGuardsTest, IgnoredOrHandledSigpipeIsLeftAlone) {
    EXPECT_EQ("same same", inSubprocess([](std::ostream& out) {
                  ::signal(SIGPIPE, SIG_IGN);
                  {
                      const SigpipeGuard guard;
                      out << (handlerOf(SIGPIPE) == SIG_IGN ? "same " : "changed ");
                  }
                  struct sigaction action = {};
                  action.sa_sigaction = [](int, siginfo_t*, void*) {};
                  action.sa_flags = SA_SIGINFO;
                  ::sigaction(SIGPIPE, &action, nullptr);
                  const std::string before = census();
                  const SigpipeGuard guard;
                  out << (census() == before ? "same" : "changed");
              }));
}

constexpr std::uint32_t nullPointer = 0;

struct Failure {
    FailingCall call;
    std::string wanted;
};

TEST_F(SignalGuardsFailureTest, EachOperationIsNamed) {
    const Failure table[] = {
        {{SYS_rt_sigprocmask, EINVAL, 1, nullPointer}, systemError("get sigprocmask", EINVAL)},
        {{SYS_rt_sigprocmask, EINVAL, 2, nullPointer}, systemError("set sigprocmask", EINVAL)},
    };
    for (const Failure& row : table) {
        EXPECT_EQ(row.wanted, inSubprocess([&](std::ostream&) {
                      failSystemCalls({row.call});
                      const SigchldBlock guard;
                  }));
    }
    EXPECT_EQ(systemError("restore sigprocmask", EINVAL), inSubprocess([](std::ostream&) {
                  SigchldBlock guard;
                  failSystemCalls({{SYS_rt_sigprocmask, EINVAL}});
                  guard.restore();
              }));
    EXPECT_EQ(systemError("sigaction", EINVAL), inSubprocess([](std::ostream&) {
                  failSystemCalls({{SYS_rt_sigaction, EINVAL}});
                  const SigpipeGuard guard;
              }));
    EXPECT_EQ(systemError("restore sigaction", EINVAL), inSubprocess([](std::ostream&) {
                  SigpipeGuard guard;
                  failSystemCalls({{SYS_rt_sigaction, EINVAL}});
                  guard.restore();
              }));
}

} // namespace
} // namespace torva::process
