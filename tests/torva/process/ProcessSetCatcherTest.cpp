#include "torva/process/ProcessSetCatcher.h"

#include "FailingSystemCall.h"
#include "ProcessFixture.h"
#include "torva/process/SignalGuards.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class ProcessSetCatcherTest : public ProcessTest {};
class ProcessSetCatcherFailureTest : public FailingCallTest {};

// A child that waits until the pipe has no writer any more, then ends.
pid_t forkChild(int waitFd, int closeFd, int status) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(closeFd);
        readAll(waitFd);
        ::_exit(status);
    }
    return pid;
}

bool readable(int fd) {
    pollfd entry = {fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

bool waitReadable(int fd) {
    return eventually([fd] { return readable(fd); });
}

TEST_F(ProcessSetCatcherTest, StatusOfUnknownPidIsRefused) {
    ProcessSet children(1);
    children.add(17);
    EXPECT_EQ("out_of_range no such pid", thrownBy([&] { children.status(18); }));
    EXPECT_EQ(0, children.status(17));
}

TEST_F(ProcessSetCatcherTest, EndIsRecordedOnceAndForChildrenOfTheSetOnly) {
    ProcessSet children(2);
    children.add(17);
    children.add(18);
    EXPECT_EQ(2u, children.running());
    EXPECT_FALSE(children.recordEnd(19, 256));
    EXPECT_TRUE(children.recordEnd(18, 256));
    EXPECT_FALSE(children.recordEnd(18, 512));
    EXPECT_EQ(1u, children.running());
    EXPECT_EQ(256, children.status(18));
    EXPECT_EQ(0, children.status(17));
}

TEST_F(ProcessSetCatcherTest, ReapsItsChildAndWakesWithOneByte) {
    ProcessSet children(1);
    PipeEnds gate = openPipe("pipe");
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    const pid_t pid = forkChild(gate.read.get(), gate.write.get(), 5);
    children.add(pid);
    sigchld.allow();
    EXPECT_FALSE(readable(catcher.wakeFd()));
    EXPECT_EQ(1u, children.running());
    gate.write.release();
    ASSERT_TRUE(waitReadable(catcher.wakeFd()));
    char bytes[8];
    EXPECT_EQ(1, ::read(catcher.wakeFd(), bytes, sizeof(bytes)));
    EXPECT_EQ('t', bytes[0]);
    EXPECT_EQ(0u, children.running());
    EXPECT_EQ(5, WEXITSTATUS(children.status(pid)));
    catcher.drain();
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, DrainTakesAllBytesAndDoesNotWait) {
    ProcessSet children(1);
    const std::vector<int> ends = nextDescriptors(2);
    ProcessSetCatcher catcher(children);
    catcher.install();
    // As many times 256 bytes as it may be read in, and more.
    for (const std::size_t count : {1U, 255U, 256U, 257U, 512U, 1000U}) {
        const std::string bytes(count, 't');
        ASSERT_EQ(static_cast<ssize_t>(count), ::write(ends[1], bytes.data(), count));
        catcher.drain();
        EXPECT_FALSE(readable(catcher.wakeFd())) << count;
    }
    catcher.drain();
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, ChildThatEndedBeforeItWasEnteredIsNotMissed) {
    ProcessSet children(1);
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(3);
    }
    siginfo_t info = {};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
    children.add(pid);
    sigchld.allow();
    EXPECT_TRUE(waitReadable(catcher.wakeFd()));
    catcher.drain();
    EXPECT_EQ(3, WEXITSTATUS(children.status(pid)));
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, OneSignalForSeveralChildrenReapsThemAll) {
    ProcessSet children(3);
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    for (int status = 1; status <= 3; ++status) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(status);
        }
        siginfo_t info = {};
        ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
        children.add(pid);
    }
    sigchld.allow();
    EXPECT_TRUE(waitReadable(catcher.wakeFd()));
    catcher.drain();
    EXPECT_EQ(0u, children.running());
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(static_cast<int>(i + 1), WEXITSTATUS(children.children()[i].status));
    }
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, ForeignChildIsReapedAndNotCounted) {
    ProcessSet children(1);
    PipeEnds gate = openPipe("pipe");
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    const pid_t own = forkChild(gate.read.get(), gate.write.get(), 0);
    children.add(own);
    sigchld.allow();
    const pid_t foreign = ::fork();
    if (foreign == 0) {
        ::_exit(9);
    }
    EXPECT_TRUE(eventually([foreign] { return ::kill(foreign, 0) == -1; }));
    EXPECT_FALSE(readable(catcher.wakeFd()));
    EXPECT_EQ(1u, children.running());
    EXPECT_EQ("out_of_range no such pid", thrownBy([&] { children.status(foreign); }));
    gate.write.release();
    EXPECT_TRUE(waitReadable(catcher.wakeFd()));
    catcher.drain();
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, StoppedChildHasNotEnded) {
    ProcessSet children(1);
    PipeEnds gate = openPipe("pipe");
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    const pid_t pid = forkChild(gate.read.get(), gate.write.get(), 6);
    children.add(pid);
    sigchld.allow();
    ASSERT_EQ(0, ::kill(pid, SIGSTOP));
    siginfo_t info = {};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT));
    ::raise(SIGCHLD); // whatever sends one: the handler looks, and finds nobody
    EXPECT_FALSE(readable(catcher.wakeFd()));
    EXPECT_EQ(1u, children.running());
    gate.write.release();
    ASSERT_EQ(0, ::kill(pid, SIGCONT));
    EXPECT_TRUE(waitReadable(catcher.wakeFd()));
    catcher.drain();
    EXPECT_EQ(6, WEXITSTATUS(children.status(pid)));
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, SecondInstallationFailsAndTheFirstGoesOn) {
    ProcessSet children(1);
    ProcessSet others(1);
    SigchldBlock sigchld;
    ProcessSetCatcher first(children);
    first.install();
    {
        const std::string before = census();
        ProcessSetCatcher second(others);
        EXPECT_EQ("logic_error ProcessSetCatcher instance has been installed already",
                  thrownBy([&] { second.install(); }));
        second.remove();
        EXPECT_EQ(before, census());
    }
    EXPECT_EQ("logic_error ProcessSetCatcher instance has been installed already",
              thrownBy([&] { first.install(); }));
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(4);
    }
    children.add(pid);
    sigchld.allow();
    EXPECT_TRUE(waitReadable(first.wakeFd()));
    first.drain();
    EXPECT_EQ(4, WEXITSTATUS(children.status(pid)));
    first.remove();
}

TEST_F(ProcessSetCatcherTest, CanBeInstalledAgainAfterRemoval) {
    ProcessSet children(1);
    ProcessSetCatcher first(children);
    first.install();
    first.remove();
    ProcessSetCatcher second(children);
    EXPECT_NO_THROW(second.install());
    second.remove();
}

TEST_F(ProcessSetCatcherTest, CheckedRemovalIsRefusedWhileChildrenRun) {
    ProcessSet children(1);
    PipeEnds gate = openPipe("pipe");
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    children.add(forkChild(gate.read.get(), gate.write.get(), 0));
    sigchld.allow();
    EXPECT_EQ("logic_error there're some child processes still running",
              thrownBy([&] { catcher.remove(); }));
    gate.write.release();
    EXPECT_TRUE(waitReadable(catcher.wakeFd())) << "the catcher did not go on";
    catcher.drain();
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, DestructionRemovesSilentlyWhateverRuns) {
    const std::string before = census();
    ProcessSet children(1);
    children.add(17);
    {
        ProcessSetCatcher catcher(children);
        catcher.install();
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(before, census());
}

TEST_F(ProcessSetCatcherTest, RemovalPutsThePreviousActionBack) {
    EXPECT_EQ("same same", inSubprocess([](std::ostream& out) {
                  ProcessSet children(1);
                  struct sigaction action = {};
                  action.sa_sigaction = [](int, siginfo_t*, void*) {};
                  action.sa_flags = SA_SIGINFO | SA_NODEFER;
                  ::sigaction(SIGCHLD, &action, nullptr);
                  std::string before = census();
                  ProcessSetCatcher first(children);
                  first.install();
                  first.remove();
                  out << (census() == before ? "same " : "changed ");
                  ::signal(SIGCHLD, SIG_IGN);
                  before = census();
                  ProcessSetCatcher second(children);
                  second.install();
                  second.remove();
                  out << (census() == before ? "same" : "changed");
              }));
}

TEST_F(ProcessSetCatcherTest, HandlerLeavesErrnoAsFound) {
    ProcessSet children(1);
    ProcessSetCatcher catcher(children);
    catcher.install();
    errno = EXDEV;
    ::raise(SIGCHLD); // waitpid fails with ECHILD in it
    EXPECT_EQ(EXDEV, errno);
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, HandlerDoesNothingInAForkedChild) {
    EXPECT_EQ("a zombie", inSubprocess([](std::ostream& out) {
                  ProcessSet children(1);
                  ProcessSetCatcher catcher(children);
                  catcher.install();
                  ProcessSetCatcher::forgetInChild();
                  const pid_t pid = ::fork();
                  if (pid == 0) {
                      ::_exit(0);
                  }
                  siginfo_t info = {};
                  ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
                  ::raise(SIGCHLD);
                  out << (::waitpid(pid, nullptr, WNOHANG) == pid ? "a zombie" : "reaped");
              }));
}

TEST_F(ProcessSetCatcherTest, ControlPipeIsNonBlockingAndCloseOnExecOnBothEnds) {
    ProcessSet children(1);
    const std::vector<int> ends = nextDescriptors(2);
    ProcessSetCatcher catcher(children);
    catcher.install();
    EXPECT_EQ(ends[0], catcher.wakeFd());
    for (const int fd : ends) {
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
        EXPECT_EQ(O_NONBLOCK, ::fcntl(fd, F_GETFL) & O_NONBLOCK);
    }
    catcher.remove();
}

TEST_F(ProcessSetCatcherTest, HandlerRestartsInterruptedCallsAndSkipsStoppedChildren) {
    ProcessSet children(1);
    ProcessSetCatcher catcher(children);
    catcher.install();
    struct sigaction action = {};
    ::sigaction(SIGCHLD, nullptr, &action);
    EXPECT_EQ(SA_RESTART | SA_NOCLDSTOP, action.sa_flags & (SA_RESTART | SA_NOCLDSTOP));
    catcher.remove();
}

// Installs with the call failing; "left as it was" follows when that is so.
std::string installWith(const std::vector<FailingCall>& calls) {
    return inSubprocess([&](std::ostream& out) {
        failSystemCalls(calls);
        const std::string before = census();
        ProcessSet children(1);
        {
            ProcessSetCatcher catcher(children);
            out << thrownBy([&] { catcher.install(); });
        }
        out << (census() == before ? ", left as it was" : ", changed");
    });
}

TEST_F(ProcessSetCatcherFailureTest, FailedInstallationIsNamedAndLeavesNothing) {
    const std::string unchanged = ", left as it was";
    EXPECT_EQ(systemError("process set catcher control pipe", EMFILE) + unchanged,
              installWith({{SYS_pipe2, EMFILE}}));
    EXPECT_EQ(systemError("control pipe fcntl", EINVAL) + unchanged,
              installWith({{SYS_fcntl, EINVAL, 1, F_SETFL}}));
    EXPECT_EQ(systemError("sigaction", EINVAL) + unchanged,
              installWith({{SYS_rt_sigaction, EINVAL, 0, SIGCHLD}}));
}

TEST_F(ProcessSetCatcherFailureTest, FailedDrainAndRemovalAreNamed) {
    ProcessSet children(1);
    EXPECT_EQ(
        systemError("read", EIO), inSubprocess([&](std::ostream&) {
            ProcessSetCatcher catcher(children);
            catcher.install();
            failSystemCalls({{SYS_read, EIO, 0, static_cast<std::uint32_t>(catcher.wakeFd())}});
            catcher.drain();
        }));
    EXPECT_EQ(systemError("restore sigaction", EINVAL), inSubprocess([&](std::ostream&) {
                  ProcessSetCatcher catcher(children);
                  catcher.install();
                  failSystemCalls({{SYS_rt_sigaction, EINVAL, 0, SIGCHLD}});
                  catcher.remove();
              }));
    EXPECT_EQ(
        systemError("close", EIO), inSubprocess([&](std::ostream&) {
            ProcessSetCatcher catcher(children);
            catcher.install();
            failSystemCalls({{SYS_close, EIO, 0, static_cast<std::uint32_t>(catcher.wakeFd())}});
            catcher.remove();
        }));
}

} // namespace
} // namespace torva::process
