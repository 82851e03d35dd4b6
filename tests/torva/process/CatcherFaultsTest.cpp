// The calls that the SIGCHLD handler makes fail a few times, then succeed again.
#include "torva/process/ProcessSetCatcher.h"

#include "ProcessFixture.h"
#include "torva/process/SignalGuards.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int failingWaits = 0;  // how many of the next calls fail
int failingWrites = 0; // of one byte, which is how the handler wakes the loop
int failingFlags = 0;  // calls that make a descriptor non-blocking
int failingActions = 0;

} // namespace

// In place of the C library's, for the whole test program.
extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    using Wait = pid_t (*)(pid_t, int*, int);
    static const auto real = reinterpret_cast<Wait>(::dlsym(RTLD_NEXT, "waitpid"));
    if (failingWaits > 0) {
        --failingWaits;
        errno = EIO;
        return -1;
    }
    return real(pid, status, options);
}

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    using Write = ssize_t (*)(int, const void*, size_t);
    static const auto real = reinterpret_cast<Write>(::dlsym(RTLD_NEXT, "write"));
    if (size == 1 && failingWrites > 0) {
        --failingWrites;
        errno = ENOSPC;
        return -1;
    }
    return real(fd, data, size);
}

extern "C" int fcntl(int fd, int command, ...) {
    using Fcntl = int (*)(int, int, long);
    static const auto real = reinterpret_cast<Fcntl>(::dlsym(RTLD_NEXT, "fcntl"));
    if (command == F_SETFL && failingFlags > 0) {
        --failingFlags;
        errno = EINVAL;
        return -1;
    }
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return real(fd, command, argument);
}

extern "C" int sigaction(int signal, const struct sigaction* action,
                         struct sigaction* previous) noexcept {
    using Action = int (*)(int, const struct sigaction*, struct sigaction*);
    static const auto real = reinterpret_cast<Action>(::dlsym(RTLD_NEXT, "sigaction"));
    if (signal == SIGCHLD && action != nullptr && failingActions > 0) {
        --failingActions;
        errno = EINVAL;
        return -1;
    }
    return real(signal, action, previous);
}

namespace torva::process {
namespace {

using namespace testing;

class CatcherFaultsTest : public ProcessTest {
protected:
    // Installs a catcher, starts a child that exits with 5, and checks something.
    template <class Question>
    static auto whileAChildEnds(Question question) {
        ProcessSet children(1);
        SigchldBlock sigchld;
        ProcessSetCatcher catcher(children);
        catcher.install();
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(5);
        }
        children.add(pid);
        sigchld.allow();
        return question(children, catcher, pid);
    }

    // Whether the loop is woken and finds the status of the child.
    static bool endIsNoticed() {
        return whileAChildEnds([](ProcessSet& children, ProcessSetCatcher& catcher, pid_t pid) {
            pollfd entry = {catcher.wakeFd(), POLLIN, 0};
            const bool woken = eventually([&] { return ::poll(&entry, 1, 10) == 1; });
            const bool ended = children.running() == 0 && WEXITSTATUS(children.status(pid)) == 5;
            return woken && ended;
        });
    }

    void TearDown() override {
        failingWaits = 0;
        failingWrites = 0;
        ProcessTest::TearDown();
    }
};

TEST_F(CatcherFaultsTest, FailedWaitIsTriedAgainOrTheChildWouldNeverBeReaped) {
    failingWaits = 2;
    EXPECT_TRUE(endIsNoticed());
    EXPECT_EQ(failingWaits, 0);
}

TEST_F(CatcherFaultsTest, FailedWakeUpIsTriedAgainOrTheRunWouldWaitForEver) {
    failingWrites = 2;
    EXPECT_TRUE(endIsNoticed());
    EXPECT_EQ(failingWrites, 0);
}

TEST_F(CatcherFaultsTest, AfterAnInstallationThatFailedTheNextOneWorks) {
    for (int* const fault : {&failingFlags, &failingActions}) {
        const std::string before = census();
        ProcessSet none(1);
        ProcessSetCatcher failed(none);
        *fault = 1;
        EXPECT_NE("nothing", thrownBy([&] { failed.install(); }));
        EXPECT_EQ(*fault, 0);
        EXPECT_EQ(-1, failed.wakeFd());
        failed.remove(); // nothing to do
        ::raise(SIGCHLD);
        EXPECT_EQ(before, census());
        EXPECT_TRUE(endIsNoticed());
        failed.install(); // the same one, too
        failed.remove();
    }
}

TEST_F(CatcherFaultsTest, HandlerThatCouldNotBeTakenAwayDoesNothing) {
    EXPECT_EQ("not reaped", inSubprocess([](std::ostream& out) {
                  {
                      ProcessSet children(1);
                      ProcessSetCatcher catcher(children);
                      catcher.install();
                      failingActions = 1;
                  }
                  const pid_t pid = ::fork();
                  if (pid == 0) {
                      ::_exit(0);
                  }
                  siginfo_t info = {};
                  ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
                  ::raise(SIGCHLD);
                  out << (::waitpid(pid, nullptr, WNOHANG) == pid ? "not reaped" : "reaped");
              }));
}

TEST_F(CatcherFaultsTest, HandlerComesBackFromACallThatFailsForGood) {
    const std::string said = inSubprocess([](std::ostream& out) {
        failingWrites = 1000;
        out << whileAChildEnds([](ProcessSet& children, ProcessSetCatcher&, pid_t) {
            eventually([&] { return children.running() == 0; });
            failingWrites = 0;
            return children.running();
        });
    });
    EXPECT_EQ(said, "0");
}

} // namespace
} // namespace torva::process
