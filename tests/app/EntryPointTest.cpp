#include "app/EntryPoint.h"
#include "torva/util/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using torva::app::entryPoint;
using torva::app::makeWorldSane;

namespace {

TEST(EntryPointTest, RunThatReturnsGivesStatusZeroAndNoOutput) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(entryPoint([] {}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(EntryPointTest, StandardExceptionIsPrintedWithItsTypeAndGivesStatusOne) {
    const std::string line =
        std::string("Fatal error: torva::SystemError(write: ") + std::strerror(EPIPE) + ")\n";
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(entryPoint([] { throw torva::SystemError("write", EPIPE); }), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
}

TEST(EntryPointTest, AnythingElseGivesStatusTwo) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(entryPoint([] { throw 42; }), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UNSPECIFIED ERROR OCCURED\n");
}

/// Runs a check in a child, which it may change in any way.
template <class Check>
void inAChild(Check check) {
    const pid_t pid = ::fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        ::_exit(check());
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SaneWorldTest, IgnoredChildSignalGetsItsDefaultAction) {
    inAChild([] {
        std::signal(SIGCHLD, SIG_IGN);
        makeWorldSane();
        return std::signal(SIGCHLD, SIG_DFL) == SIG_DFL ? 0 : 1;
    });
}

TEST(SaneWorldTest, UmaskLetsOthersReadAndNotWrite) {
    inAChild([] {
        ::umask(077);
        makeWorldSane();
        return ::umask(0) == 022 ? 0 : 1;
    });
}

TEST(SaneWorldTest, BrokenPipeIsAnErrorAndNoSignalForUsAndTheDefaultForOurChildren) {
    inAChild([] {
        std::signal(SIGPIPE, SIG_DFL);
        makeWorldSane();
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0 || ::close(fds[0]) != 0) {
            return 1;
        }
        if (::write(fds[1], "x", 1) != -1 || errno != EPIPE) {
            return 2;
        }
        // A shell is killed by it only if it did not inherit SIG_IGN.
        const int status = std::system("kill -PIPE $$"); // NOLINT(cert-env33-c)
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE ? 0 : 3;
    });
}

TEST(SaneWorldTest, BrokenPipeInterruptsNoCall) {
    inAChild([] {
        std::signal(SIGPIPE, SIG_DFL);
        makeWorldSane();
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            return 1;
        }
        // Writes only once the reader is asleep in its call and has had the signal.
        const pid_t reader = ::getpid();
        const pid_t writer = ::fork();
        if (writer == 0) {
            const std::string path = "/proc/" + std::to_string(reader) + "/stat";
            for (int signals = 0; signals < 3;) {
                std::ifstream stat(path);
                std::string word;
                stat >> word >> word >> word; // number, name, state
                if (word == "S") {
                    ::kill(reader, SIGPIPE);
                    ++signals;
                }
            }
            ::_exit(::write(fds[1], "x", 1) == 1 ? 0 : 1);
        }
        char byte = 0;
        const ssize_t size = ::read(fds[0], &byte, 1);
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
        return size == 1 ? 0 : 2;
    });
}

TEST(SaneWorldTest, IgnoredBrokenPipeStaysIgnored) {
    inAChild([] {
        std::signal(SIGPIPE, SIG_IGN);
        makeWorldSane();
        return std::signal(SIGPIPE, SIG_DFL) == SIG_IGN ? 0 : 1;
    });
}

class ClosedStreamsTest : public testing::TestWithParam<int> {};

TEST_P(ClosedStreamsTest, BecomeTheNullDeviceAndOpenOnesStay) {
    const int closed = GetParam();
    inAChild([closed] {
        struct stat null = {};
        struct stat before[3] = {};
        ::stat("/dev/null", &null);
        const int other = ::open("/proc/self/status", O_RDONLY);
        for (int fd = 0; fd < 3; ++fd) {
            ::dup2(other, fd);
            ::fstat(fd, &before[fd]);
        }
        ::close(other);
        for (int fd = 0; fd < 3; ++fd) {
            if (((closed >> fd) & 1) != 0) {
                ::close(fd);
            }
        }
        makeWorldSane();
        for (int fd = 0; fd < 3; ++fd) {
            struct stat now = {};
            if (::fstat(fd, &now) != 0) {
                return 10 + fd;
            }
            const bool isNull = now.st_rdev == null.st_rdev && S_ISCHR(now.st_mode);
            if (isNull != (((closed >> fd) & 1) != 0)) {
                return 20 + fd;
            }
        }
        return 0;
    });
}

INSTANTIATE_TEST_SUITE_P(EveryCombination, ClosedStreamsTest, testing::Range(0, 8));

} // namespace
