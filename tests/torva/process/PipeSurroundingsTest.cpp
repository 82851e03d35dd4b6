// The environment of a pipe in its process, before and after: descriptors closed
// or numerous, signal masks and actions, other children.
#include "torva/process/Pipe.h"

#include "ProcessFixture.h"
#include "torva/process/Descriptor.h"
#include "torva/process/Launch.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class PipeSurroundingsTest : public ProcessTest {};

TEST_F(PipeSurroundingsTest, EveryCombinationOfClosedStandardStreamsWorks) {
    for (int closed = 0; closed < 8; ++closed) {
        std::string left = " ";
        for (const int fd : {0, 1, 2}) {
            left += (closed & (1 << fd)) != 0 ? "c" : "o";
        }
        EXPECT_EQ("in|err\n|9" + left, inSubprocess([&](std::ostream& out) {
                      for (const int fd : {0, 1, 2}) {
                          if ((closed & (1 << fd)) != 0) {
                              ::close(fd);
                          }
                      }
                      const Outcome outcome = runScript("cat; echo err >&2; exit 9", {"in"});
                      out << outcome.output << "|" << outcome.error << "|" << outcome.exited()
                          << " ";
                      for (const int fd : {0, 1, 2}) {
                          out << (::fcntl(fd, F_GETFD) == -1 ? "c" : "o");
                      }
                  }))
            << "closed " << closed;
        // With one stream of ours the others are inherited, open or closed.
        EXPECT_EQ(std::to_string((7 - closed) | 2), inSubprocess([&](std::ostream& out) {
                      for (const int fd : {0, 1, 2}) {
                          if ((closed & (1 << fd)) != 0) {
                              ::close(fd);
                          }
                      }
                      std::string output;
                      Pipe pipe;
                      pipe.output = into(output);
                      pipe.addProcess("/bin/sh",
                                      shell("s=0; n=1; for f in 0 1 2; do "
                                            "[ -e /proc/$$/fd/$f ] && s=$((s+n)); n=$((n*2)); "
                                            "done; exit $s"));
                      pipe.launch();
                      out << WEXITSTATUS(pipe.status(0));
                  }))
            << "closed " << closed;
    }
}

// Allows that many descriptors and takes all below the given one.
bool takeDescriptorsBelow(int first, std::vector<Descriptor>& held) {
    const rlimit limit = {20000, 20000};
    rlimit old = {};
    ::getrlimit(RLIMIT_NOFILE, &old);
    if (old.rlim_cur < limit.rlim_cur && ::setrlimit(RLIMIT_NOFILE, &limit) == -1) {
        return false;
    }
    while (nextDescriptors(1)[0] < first) {
        held.push_back(openNullDevice(O_RDONLY, "open"));
    }
    return true;
}

TEST_F(PipeSurroundingsTest, WorksWithDescriptorsBeyondTheUsualSetSize) {
    const std::string shown = inSubprocess([](std::ostream& out) {
        std::vector<Descriptor> held;
        if (!takeDescriptorsBelow(1100, held)) {
            out << "limit";
            return;
        }
        out << runScript("cat", {"in"}).output;
    });
    if (shown == "limit") {
        GTEST_SKIP() << "not so many descriptors are allowed here";
    }
    EXPECT_EQ("in", shown);
}

TEST_F(PipeSurroundingsTest, DescriptorBeyondTheSetIsASelectError) {
    const auto runWithNext = [](int first) {
        return inSubprocess([first](std::ostream& out) {
            std::vector<Descriptor> held;
            if (!takeDescriptorsBelow(first, held)) {
                out << "limit";
                return;
            }
            const std::string before = census();
            out << thrownBy([&] { out << runScript("cat", {"in"}).output << " "; });
            out << (census() == before ? ", left as it was" : ", changed");
        });
    };
    const std::string highest = runWithNext(16384 - 10);
    if (highest == "limit") {
        GTEST_SKIP() << "not so many descriptors are allowed here";
    }
    EXPECT_EQ("in nothing, left as it was", highest);
    EXPECT_EQ(systemError("select", EBADF) + ", left as it was", runWithNext(16384));
    // The catcher's are still within, the streams are not.
    EXPECT_EQ(systemError("select", EBADF) + ", left as it was", runWithNext(16384 - 4));
}

// The mask of blocked signals as /proc shows it.
std::string maskIn(const std::string& text) {
    const std::size_t start = text.find("SigBlk:");
    return text.substr(start, text.find('\n', start) - start);
}

TEST_F(PipeSurroundingsTest, ChildGetsTheExactOldMaskAndSoDoesTheParent) {
    for (const std::vector<int>& signals :
         {std::vector<int>{}, {SIGCHLD}, {SIGUSR1, SIGTERM}, {SIGCHLD, SIGUSR2, SIGPIPE}}) {
        EXPECT_EQ("same, left as it was", inSubprocess([&](std::ostream& out) {
                      sigset_t mask;
                      ::sigemptyset(&mask);
                      for (const int signal : signals) {
                          ::sigaddset(&mask, signal);
                      }
                      ::sigprocmask(SIG_SETMASK, &mask, nullptr);
                      const std::string before = census();
                      const Descriptor status(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
                      const std::string wanted = maskIn(readAll(status.get()));
                      std::string output;
                      {
                          Pipe pipe;
                          pipe.output = into(output);
                          pipe.addProcess("/bin/grep", {"grep", "SigBlk", "/proc/self/status"});
                          pipe.launch();
                      }
                      out << (maskIn(output) == wanted ? "same" : output + " not " + wanted);
                      ::close(status.get());
                      out << (census() == before ? ", left as it was" : ", changed");
                      ::dup2(0, status.get()); // for the holder to close
                  }));
    }
}

TEST_F(PipeSurroundingsTest, ServingLetsSigchldThroughAndKeepsTheRestOfTheMask) {
    EXPECT_EQ("01", inSubprocess([](std::ostream& out) {
                  sigset_t mask;
                  ::sigemptyset(&mask);
                  ::sigaddset(&mask, SIGCHLD);
                  ::sigaddset(&mask, SIGUSR1);
                  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
                  Pipe pipe;
                  pipe.output = [&out](const std::vector<char>&) {
                      sigset_t now;
                      ::sigprocmask(SIG_SETMASK, nullptr, &now);
                      out << ::sigismember(&now, SIGCHLD) << ::sigismember(&now, SIGUSR1);
                  };
                  pipe.addProcess("/bin/sh", shell("echo"));
                  pipe.launch();
              }));
}

TEST_F(PipeSurroundingsTest, ActionsOfTheCallerComeBackWhateverTheyAre) {
    using Handler = void (*)(int);
    for (const Handler chld : {Handler(SIG_DFL), Handler(SIG_IGN), Handler([](int) {})}) {
        for (const Handler pipeHandler :
             {Handler(SIG_DFL), Handler(SIG_IGN), Handler([](int) {})}) {
            EXPECT_EQ("7, left as it was", inSubprocess([&](std::ostream& out) {
                          ::signal(SIGCHLD, chld);
                          ::signal(SIGPIPE, pipeHandler);
                          const std::string before = census();
                          out << runScript("exit 7").exited();
                          out << (census() == before ? ", left as it was" : ", changed");
                      }));
        }
    }
}

TEST_F(PipeSurroundingsTest, ChildKeepsTheDispositionOfSigpipeThatItWouldHaveHad) {
    EXPECT_EQ(SIGPIPE, runScript("kill -PIPE $$; exit 9").signal());
    EXPECT_EQ("9", inSubprocess([](std::ostream& out) {
                  ::signal(SIGPIPE, SIG_IGN);
                  out << runScript("kill -PIPE $$; exit 9").exited();
              }));
}

TEST_F(PipeSurroundingsTest, SignalsOfOthersInterruptNothing) {
    EXPECT_EQ("whole, interrupted", inSubprocess([](std::ostream& out) {
                  static volatile std::sig_atomic_t alarms = 0;
                  struct sigaction action = {};
                  action.sa_handler = [](int) { alarms = alarms + 1; };
                  ::sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
                  const std::string large(300000, 'x');
                  const itimerval often = {{0, 20000}, {0, 20000}};
                  ::setitimer(ITIMER_REAL, &often, nullptr);
                  const Outcome outcome = runScript("sleep 0.2; cat", {large, large});
                  const itimerval never = {};
                  ::setitimer(ITIMER_REAL, &never, nullptr);
                  out << (outcome.output == large + large ? "whole" : "damaged");
                  out << (alarms > 0 ? ", interrupted" : ", undisturbed");
              }));
}

TEST_F(PipeSurroundingsTest, ForeignChildOfTheCallerDoesNotEndThePipeAndIsReapedByIt) {
    EXPECT_EQ("on 2, " + systemError("unable to wait for child process exit", ECHILD),
              inSubprocess([](std::ostream& out) {
                  const pid_t foreign = ::fork();
                  if (foreign == 0) {
                      ::_exit(9);
                  }
                  const Outcome outcome = runScript("sleep 0.1; printf 'on '; exit 2");
                  out << outcome.output << outcome.exited() << ", ";
                  waitForExit(foreign);
              }));
}

} // namespace
} // namespace torva::process
