// A pipe in a process with other threads, to which the kernel may deliver SIGCHLD.
#include "torva/process/Pipe.h"

#include "ProcessFixture.h"
#include "support/Sanitizer.h"
#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SignalGuards.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace torva::process {
namespace {

using namespace testing;

class PipeThreadsTest : public ProcessTest {};

// A fault in who gets SIGCHLD showed within 30 launches. Under the address sanitizer a
// launch takes twenty times as long.
constexpr int manyLaunches = TORVA_TEST_ASAN ? 200 : 2000;

// Threads that do the same over and over until the end.
class Threads {
public:
    template <class Body>
    Threads(int count, Body body) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this, body] {
                while (!end_) {
                    body();
                }
            });
        }
    }
    ~Threads() {
        end_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

private:
    std::atomic<bool> end_{false};
    std::vector<std::thread> threads_;
};

// So many runs of a tool; the number of those whose status and output are right. A run
// that hangs is ended by an alarm.
int rightRuns(int count) {
    int right = 0;
    for (int run = 0; run < count; ++run) {
        ::alarm(60);
        std::string output;
        Pipe pipe;
        pipe.output = into(output);
        pipe.addProcess("/bin/echo", {"echo", std::to_string(run)});
        pipe.launch();
        right += pipe.status(0) == 0 && output == std::to_string(run) + "\n" ? 1 : 0;
    }
    ::alarm(0);
    return right;
}

TEST_F(PipeThreadsTest, ManyLaunchesBesideIdleThreads) {
    EXPECT_EQ(std::to_string(manyLaunches), inSubprocess([](std::ostream& out) {
                  int gate[2];
                  ASSERT_EQ(0, ::pipe2(gate, O_CLOEXEC));
                  {
                      const Threads threads(4, [&gate] {
                          char byte = 0;
                          static_cast<void>(::read(gate[0], &byte, 1));
                      });
                      out << rightRuns(manyLaunches);
                      ::close(gate[1]);
                  }
              }));
}

TEST_F(PipeThreadsTest, ManyLaunchesBesideBusyThreads) {
    EXPECT_EQ(std::to_string(manyLaunches), inSubprocess([](std::ostream& out) {
                  const Threads threads(2, [] {
                      std::vector<char> piece(1000, 'x');
                      static std::atomic<std::size_t> sum{0};
                      sum += piece.size();
                      std::this_thread::yield();
                  });
                  out << rightRuns(manyLaunches);
              }));
}

TEST_F(PipeThreadsTest, LaunchInAThreadOtherThanTheFirst) {
    EXPECT_EQ("200", inSubprocess([](std::ostream& out) {
                  int right = 0;
                  std::thread([&right] { right = rightRuns(200); }).join();
                  out << right;
              }));
}

TEST_F(PipeThreadsTest, LaunchingThreadThatBlocksSigchldGetsItWhenItLetsItThrough) {
    EXPECT_EQ("none ended, ended with 3", inSubprocess([](std::ostream& out) {
                  const Threads threads(1, [] { ::usleep(1000); });
                  ProcessSet children(1);
                  SigchldBlock sigchld;
                  ProcessSetCatcher catcher(children);
                  catcher.install();
                  const pid_t pid = ::fork();
                  if (pid == 0) {
                      ::_exit(3);
                  }
                  children.add(pid);
                  // Taken by the other thread, handed over, and pending here.
                  const auto pending = [] {
                      sigset_t signals;
                      ::sigpending(&signals);
                      return ::sigismember(&signals, SIGCHLD) == 1;
                  };
                  eventually(pending);
                  out << (children.running() == 1 ? "none ended, " : "ended, ");
                  sigchld.allow();
                  eventually([&] { return children.running() == 0; });
                  out << "ended with " << WEXITSTATUS(children.status(pid));
                  catcher.drain();
                  catcher.remove();
              }));
}

TEST_F(PipeThreadsTest, SecondPipeInAnotherThreadIsRefusedAndDisturbsNothing) {
    EXPECT_EQ(
        "logic_error ProcessSetCatcher instance has been installed already, 0 whole",
        inSubprocess([](std::ostream& out) {
            std::string thrown;
            std::string output;
            Pipe pipe;
            pipe.output = [&](const std::vector<char>& chunk) {
                output.append(chunk.begin(), chunk.end());
                if (thrown.empty()) {
                    std::thread([&] { thrown = thrownBy([] { runScript("exit 5"); }); }).join();
                }
            };
            pipe.addProcess("/bin/sh", {"sh", "-c", "echo who; sleep 0.1; echo le"});
            pipe.launch();
            out << thrown << ", " << pipe.status(0) << (output == "who\nle\n" ? " whole" : output);
        }));
}

TEST_F(PipeThreadsTest, ThreadsThatTryAtTheSameTimeGetOneCatcherEach) {
    EXPECT_EQ("every run right or refused", inSubprocess([](std::ostream& out) {
                  ::alarm(60);
                  std::atomic<int> wrong{0};
                  const auto run = [&wrong] {
                      for (int i = 0; i < 100; ++i) {
                          Outcome outcome;
                          const std::string thrown =
                              thrownBy([&] { outcome = runScript("echo x; exit 4"); });
                          const bool right = outcome.output == "x\n" && outcome.exited() == 4;
                          const bool refused = thrown.rfind("logic_error Proc", 0) == 0;
                          wrong += right || refused ? 0 : 1;
                      }
                  };
                  std::thread first(run);
                  std::thread second(run);
                  first.join();
                  second.join();
                  ::alarm(0);
                  out << (wrong == 0 ? "every run right or refused"
                                     : std::to_string(wrong) + " wrong");
              }));
}

TEST_F(PipeThreadsTest, HandlerInAThreadDoesNothingWhenTheOwnerHasEnded) {
    EXPECT_EQ("reaped by us", inSubprocess([](std::ostream& out) {
                  ProcessSet children(1);
                  ProcessSetCatcher catcher(children);
                  std::thread([&catcher] { catcher.install(); }).join();
                  const pid_t pid = ::fork();
                  if (pid == 0) {
                      ::_exit(0);
                  }
                  ::raise(SIGCHLD);
                  out << (::waitpid(pid, nullptr, 0) == pid ? "reaped by us" : "lost");
              }));
}

} // namespace
} // namespace torva::process
