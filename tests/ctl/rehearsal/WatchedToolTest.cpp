#include "ctl/rehearsal/WatchedTool.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/process/Descriptor.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::ctl::rehearsal;
using torva::test::inChild;

namespace {

class WatchedToolTest : public testing::Test {
protected:
    WatchedToolTest() : log_(directory() + "/log") {}
    ~WatchedToolTest() override {
        ::unlink((directory_ + "/log").c_str());
        ::rmdir(directory_.c_str());
    }

    ToolOutcome runScript(const std::string& script, std::chrono::milliseconds patience,
                          const std::string& input = {}) {
        return runWatched(log_, {"/bin/sh", "-c", script}, Deadline(patience), input);
    }

    const std::string& directory() {
        if (directory_.empty()) {
            char name[] = "/tmp/torva-test.XXXXXX";
            directory_ = ::mkdtemp(name);
        }
        return directory_;
    }

private:
    std::string directory_;
    MailLog log_;
};

constexpr std::chrono::seconds minute(60);

TEST_F(WatchedToolTest, StreamsAndStatusAreThoseOfTheProgram) {
    const ToolOutcome outcome = runScript("cat; echo no >&2; exit 3", minute, "given\n");
    EXPECT_TRUE(outcome.ended);
    EXPECT_FALSE(outcome.succeeded());
    EXPECT_EQ(WEXITSTATUS(outcome.status), 3);
    EXPECT_EQ(outcome.output, "given\n");
    EXPECT_EQ(outcome.error, "no\n");
    EXPECT_EQ(outcome.said(), "no\ngiven\n");
}

TEST_F(WatchedToolTest, ProgramThatHasClosedItsStreamsIsWaitedFor) {
    const ToolOutcome outcome = runScript("exec >&- 2>&-; sleep 0.2; exit 4", minute);
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(WEXITSTATUS(outcome.status), 4);
}

TEST_F(WatchedToolTest, ProgramThatHangsIsKilledWithItsChildren) {
    const std::string held = directory() + "/held";
    const ToolOutcome outcome =
        runScript("exec 9>" + held + "; flock 9; echo begun; sleep 1000 >&- & sleep 1000",
                  std::chrono::milliseconds(500));
    EXPECT_FALSE(outcome.ended);
    EXPECT_EQ(WTERMSIG(outcome.status), SIGKILL);
    EXPECT_EQ(outcome.output, "begun\n");
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    // All that had inherited the lock are gone, or this waits for them.
    const torva::process::Descriptor file(::open(held.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(::flock(file.get(), LOCK_EX), 0);
    ::unlink(held.c_str());
}

TEST_F(WatchedToolTest, ProgramThatEndsWhileAChildHoldsItsOutputHasEnded) {
    const ToolOutcome outcome = runScript("sleep 1000 & exit 5", std::chrono::milliseconds(300));
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(WEXITSTATUS(outcome.status), 5);
}

TEST_F(WatchedToolTest, LimitOfTheSizeOfFilesDoesNotCutWhatIsSaid) {
    const ToolOutcome outcome =
        runScript("ulimit -f 0; echo complaint >&2; echo output; exit 3", minute);
    EXPECT_EQ(outcome.error, "complaint\n");
    EXPECT_EQ(outcome.output, "output\n");
    EXPECT_EQ(WEXITSTATUS(outcome.status), 3);
}

TEST_F(WatchedToolTest, ManyComplaintsDoNotBlockTheProgram) {
    const ToolOutcome outcome = runScript(
        "head -c 1000000 /dev/zero >&2; echo output; head -c 100000 /dev/zero >&2", minute);
    EXPECT_TRUE(outcome.succeeded());
    EXPECT_EQ(outcome.error.size(), 1100000U);
    EXPECT_EQ(outcome.output, "output\n");
}

TEST_F(WatchedToolTest, ChildThatHoldsTheComplaintsOpenIsNotWaitedFor) {
    const auto begin = std::chrono::steady_clock::now();
    const ToolOutcome outcome = runScript("sleep 3 >&- & echo no >&2; exit 5", minute);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.error, "no\n");
}

TEST_F(WatchedToolTest, ProgramThatNeverStopsTalkingIsCutOff) {
    for (const char* const stream : {"1", "2"}) {
        const ToolOutcome outcome = runScript(std::string("exec cat /dev/zero >&") + stream,
                                              std::chrono::milliseconds(300));
        EXPECT_FALSE(outcome.ended);
        EXPECT_EQ(WTERMSIG(outcome.status), SIGKILL);
    }
}

TEST_F(WatchedToolTest, ProgramIsKilledWhenItCannotBeWaitedFor) {
    const auto outcome = inChild([this] {
        if (!torva::test::failSyscall(SYS_pidfd_open, EPERM)) {
            return int{torva::test::noFilters};
        }
        try {
            runScript("exec >&- 2>&-; sleep 1000", minute);
        } catch (const torva::SystemError& error) {
            std::fputs(error.what(), stdout);
            std::fflush(stdout);
        }
        return ::waitpid(-1, nullptr, 0) == -1 && errno == ECHILD ? 0 : 1;
    });
    if (outcome.exited == torva::test::noFilters) {
        GTEST_SKIP() << "no seccomp filters here, system calls cannot be made to fail";
    }
    EXPECT_EQ(outcome.exited, 0) << "a child is left";
    EXPECT_NE(outcome.out.find("pidfd_open"), std::string::npos) << outcome.out;
}

} // namespace
