#include "torva/libc/log.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <syslog.h>

// Formats that are no literals are among what is tested.
#pragma GCC diagnostic ignored "-Wformat-security"

using torva::test::exhaustMemory;
using torva::test::inChild;
using torva::test::Outcome;
using torva::test::Streams;

namespace {

void printInstead(int priority, const char* format, ...) {
    std::printf("<%d>%s", priority, format);
}

void logThroughList(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    torva_logv(priority, format, arguments);
    va_end(arguments);
}

/// Replaces a standard stream by a pipe without a reader.
void losesItsReader(int stream) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        ::dup2(fds[1], stream);
        ::close(fds[0]);
        ::close(fds[1]);
    }
}

/// Whether SIGPIPE has its default action, is let through and is not pending.
bool sigpipeIsUntouched() {
    sigset_t mask;
    sigset_t pending;
    struct sigaction action = {};
    ::sigprocmask(SIG_BLOCK, nullptr, &mask);
    ::sigpending(&pending);
    ::sigaction(SIGPIPE, nullptr, &action);
    return ::sigismember(&mask, SIGPIPE) == 0 && ::sigismember(&pending, SIGPIPE) == 0 &&
           action.sa_handler == SIG_DFL;
}

} // namespace

TEST(LogTest, InitialStateIsLevelSixConsoleAndTheMailFacility) {
    EXPECT_EQ(log_level(), 6);
    EXPECT_EQ(log_console(), 1);
    EXPECT_EQ(log_facility(), 16);
}

TEST(LogTest, InitialHooksPrintOnBothStreamsWhatIsAtMostTheLevel) {
    const struct {
        int priority;
        bool printed;
    } cases[] = {{12, false}, {7, false}, {6, true}, {3, true}, {0, true}, {-1, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.priority);
        for (const auto hook : {torva_log, logThroughList}) {
            const Outcome outcome = inChild([&] {
                hook(c.priority, "%s has %d", "box", 5);
                return 0;
            });
            const std::string line = c.printed ? "box has 5\n" : "";
            EXPECT_EQ(outcome.err, line);
            EXPECT_EQ(outcome.out, line);
        }
    }
}

TEST(LogTest, StandardErrorComesFirstAndBothCopiesAreFlushed) {
    const Outcome outcome = inChild(
        [] {
            torva_log(3, "one");
            torva_log(3, "two\n");
            return 0;
        },
        Streams::one);
    EXPECT_EQ(outcome.out, "one\none\ntwo\n\ntwo\n\n");
}

TEST(LogTest, BothCopiesShowTheSameErrnoAndItIsKept) {
    const Outcome outcome = inChild([] {
        errno = ENOENT;
        const std::string format = "%m"; // not a literal: this is not ISO C++
        torva_log(3, format.c_str());
        return errno == ENOENT ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "No such file or directory\n");
    EXPECT_EQ(outcome.out, "No such file or directory\n");
}

TEST(LogTest, ConsoleWriterPrintsAMessageOfAnyLengthWhole) {
    const std::string text(300000, 'x');
    const Outcome outcome = inChild([&] {
        torva_log(3, "%s", text.c_str());
        return 0;
    });
    EXPECT_EQ(outcome.err, text + '\n');
    EXPECT_EQ(outcome.out, text + '\n');
}

TEST(LogTest, ConsoleWriterIgnoresOutputErrors) {
    const Outcome closed = inChild([] {
        ::close(STDERR_FILENO);
        torva_log(3, "text");
        return 0;
    });
    EXPECT_EQ(closed.exited, 0);
    EXPECT_EQ(closed.out, "text\n");
    const Outcome full = inChild([] {
        const int fd = ::open("/dev/full", O_WRONLY);
        ::dup2(fd, STDOUT_FILENO);
        torva_log(3, "text");
        return 0;
    });
    EXPECT_EQ(full.exited, 0);
    EXPECT_EQ(full.err, "text\n");
}

TEST(LogTest, AReaderThatHasGoneCostsNeitherTheProcessNorTheOtherCopy) {
    for (const int gone : {STDOUT_FILENO, STDERR_FILENO}) {
        SCOPED_TRACE(gone);
        const Outcome outcome = inChild([gone] {
            losesItsReader(gone);
            torva_log(3, "one");
            logThroughList(3, "two");
            errno = 0;
            report_error(0, "three");
            return sigpipeIsUntouched() ? 0 : 1;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(gone == STDOUT_FILENO ? outcome.err : outcome.out, "one\ntwo\nthree\n");
    }
}

TEST(LogTest, WithoutMemoryTheConsoleWriterPrintsTheBareFormat) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const Outcome outcome = inChild([] {
        exhaustMemory();
        torva_log(3, "no memory for %s", "this");
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "no memory for %s\n");
    EXPECT_EQ(outcome.out, "no memory for %s\n");
}

TEST(LogTest, LogInitSetsLevelConsoleFlagAndFacility) {
    const struct {
        const char* target;
        int level;
        int wantedLevel;
        int wantedConsole;
    } cases[] = {
        {"console", 3, 3, 1},    {"CoNsOlE-1", 1, 1, 1}, {"consol", 3, 3, 0},
        {"/var/log/x", 3, 3, 0}, {"console", 0, 0, 0},   {"console", -5, 0, 0},
        {"", 12, 12, 0},         {nullptr, 4, 4, 1},     {nullptr, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.target != nullptr ? c.target : "(null)");
        const Outcome outcome = inChild([&] {
            log_init(c.target, c.level, LOG_DAEMON, 0, "test");
            std::printf("%d %d %d", log_level(), log_console(), log_facility());
            return 0;
        });
        const std::string wanted = std::to_string(c.wantedLevel) + " " +
                                   std::to_string(c.wantedConsole) + " " +
                                   std::to_string(LOG_DAEMON);
        EXPECT_EQ(outcome.out, wanted);
    }
}

TEST(LogTest, TheConsoleFlagSuppressesNothing) {
    const Outcome outcome = inChild([] {
        log_init("elsewhere", 0, LOG_MAIL, 0, nullptr);
        torva_log(0, "text");
        torva_log(1, "not this");
        return 0;
    });
    EXPECT_EQ(outcome.err, "text\n");
    EXPECT_EQ(outcome.out, "text\n");
}

TEST(LogTest, ANullTargetSwitchesToTheSystemLogWithTheProcessNumber) {
    const Outcome outcome = inChild([] {
        // LOG_PERROR shows what goes to the system log.
        log_init(nullptr, 6, LOG_USER, LOG_PERROR, "torva-test");
        torva_log(LOG_INFO, "number %d", 5);
        logThroughList(LOG_INFO, "number %d", 6);
        std::printf("%d", static_cast<int>(::getpid()));
        return torva_log == syslog && torva_logv == vsyslog ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    const std::string prefix = "torva-test[" + outcome.out + "]: ";
    EXPECT_EQ(outcome.err, prefix + "number 5\n" + prefix + "number 6\n");
}

TEST(LogTest, ATargetLeadsBackFromTheSystemLogToTheConsole) {
    const Outcome outcome = inChild([] {
        log_init(nullptr, 6, LOG_USER, LOG_PERROR, "torva-test");
        log_init("console", 2, LOG_MAIL, 0, nullptr);
        torva_log(2, "back");
        logThroughList(2, "back too");
        torva_log(3, "not this");
        return 0;
    });
    EXPECT_EQ(outcome.err, "back\nback too\n");
    EXPECT_EQ(outcome.out, "back\nback too\n");
}

TEST(LogTest, OtherCodeMayReplaceTheHooks) {
    const Outcome outcome = inChild([] {
        torva_log = printInstead;
        torva_log(12, "mine");
        return 0;
    });
    EXPECT_EQ(outcome.out, "<12>mine");
    EXPECT_EQ(outcome.err, "");
}

TEST(ReportErrorTest, ErrnoTwoOnEntryAppendsTheSystemErrorLine) {
    const Outcome outcome = inChild([] {
        PROGNAME = "/opt/panel/sbin/setup";
        errno = 2;
        report_error(0, "Unable to open \"%s\".", "x");
        return errno;
    });
    const std::string text =
        "setup: Unable to open \"x\".\nSystem error 2: No such file or directory\n";
    EXPECT_EQ(outcome.err, text);
    EXPECT_EQ(outcome.out, text);
    EXPECT_EQ(outcome.exited, 2) << "errno is left as it was";
}

TEST(ReportErrorTest, TextPrefixAndLineFeed) {
    const struct {
        const char* program;
        const char* message;
        const char* wanted;
    } cases[] = {
        {nullptr, "text", "text\n"},
        {nullptr, "text\n", "text\n"},
        {nullptr, "text\n\n", "text\n\n"},
        {nullptr, "", "\n"},
        {"setup", "text", "setup: text\n"},
        {"./setup", "text\n", "setup: text\n"},
        {"/a/b/c", "", "c: \n"},
        {"/a/b/", "text", ": text\n"},
        {"", "text", ": text\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.wanted);
        const Outcome outcome = inChild([&] {
            PROGNAME = c.program;
            errno = 0;
            report_error(0, "%s", c.message);
            return errno;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(outcome.err, c.wanted);
        EXPECT_EQ(outcome.out, c.wanted);
    }
}

TEST(ReportErrorTest, TheBufferGrowsForTheMessageAndForTheSystemError) {
    // About the sizes at which the first buffer of 4096 bytes is full, with and
    // without the line that follows.
    for (const std::size_t size :
         {4000U, 4048U, 4049U, 4050U, 4051U, 4094U, 4095U, 4096U, 4097U, 8192U, 200000U}) {
        for (const int error : {0, ENOENT}) {
            SCOPED_TRACE(std::to_string(size) + " errno " + std::to_string(error));
            const std::string text(size, 'y');
            const Outcome outcome = inChild([&] {
                errno = error;
                report_error(0, "%s", text.c_str());
                return errno == error ? 0 : 1;
            });
            const std::string wanted =
                text + (error != 0 ? "\nSystem error 2: No such file or directory\n" : "\n");
            EXPECT_EQ(outcome.exited, 0);
            EXPECT_EQ(outcome.err, wanted);
            EXPECT_EQ(outcome.out, wanted);
        }
    }
}

TEST(ReportErrorTest, AGrownMessageStillMeansTheErrnoOfTheEntry) {
    const std::string text(5000, 'y');
    const Outcome outcome = inChild([&] {
        errno = EACCES;
        const std::string format = text + " %m"; // not a literal: this is not ISO C++
        report_error(0, format.c_str());
        return 0;
    });
    EXPECT_EQ(outcome.err, text + " Permission denied\nSystem error 13: Permission denied\n");
}

TEST(ReportErrorTest, MessageMeansTheErrnoOfTheEntryWhateverAllocationsMakeOfIt) {
    if (!torva::test::allocation_faults_work) {
        GTEST_SKIP() << torva::test::no_allocation_faults;
    }
    const struct {
        void (*report)(const char* format);
        const char* wanted;
    } cases[] = {
        {[](const char* format) { report_error(0, format); },
         "Permission denied\nSystem error 13: Permission denied\n"},
        {[](const char* format) { torva_log(3, format); }, "Permission denied\n"},
    };
    for (const auto& c : cases) {
        // The second one is more than the first buffer holds.
        for (const std::size_t size : {0U, 5000U}) {
            const std::string beginning(size, 'y');
            const Outcome outcome = inChild([&] {
                const std::string format = beginning + "%m"; // no literal: it is no ISO C++
                const torva::test::DisturbedErrno disturbed(EDOM);
                errno = EACCES;
                c.report(format.c_str());
                return errno;
            });
            EXPECT_EQ(outcome.err, beginning + c.wanted);
            EXPECT_EQ(outcome.exited, EACCES);
        }
    }
}

TEST(ReportErrorTest, StandardErrorComesFirstAndBothCopiesAreFlushed) {
    const Outcome outcome = inChild(
        [] {
            errno = 0;
            report_error(0, "one");
            report_error(0, "two");
            return 0;
        },
        Streams::one);
    EXPECT_EQ(outcome.out, "one\none\ntwo\ntwo\n");
}

TEST(ReportErrorTest, AStatusEndsTheProcessInOrder) {
    const Outcome outcome = inChild([] {
        std::atexit([] { std::fputs("left\n", stderr); });
        errno = 0;
        report_error(3, "fatal");
        return 0;
    });
    EXPECT_EQ(outcome.exited, 3);
    EXPECT_EQ(outcome.err, "fatal\nleft\n");
    EXPECT_EQ(outcome.out, "fatal\n");
}

TEST(ReportErrorTest, ReadersThatHaveGoneDoNotChangeTheExitStatus) {
    const Outcome outcome = inChild([] {
        losesItsReader(STDOUT_FILENO);
        losesItsReader(STDERR_FILENO);
        std::printf("not yet flushed");
        errno = 0;
        report_error(1, "fatal");
        return 0;
    });
    EXPECT_EQ(outcome.exited, 1);
}

TEST(ReportErrorTest, AClosedStandardErrorStillLeavesTheOtherCopy) {
    const Outcome outcome = inChild([] {
        ::close(STDERR_FILENO);
        errno = 0;
        report_error(0, "text");
        return errno;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "text\n");
}

TEST(ReportErrorTest, LackOfMemoryForTheFirstBufferHasItsOwnMessage) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const Outcome outcome = inChild([] {
        exhaustMemory();
        errno = ENOENT;
        report_error(0, "text");
        return errno;
    });
    EXPECT_EQ(outcome.exited, ENOENT);
    EXPECT_EQ(outcome.err, "Can't allocate memory for error message\n");
    EXPECT_EQ(outcome.out, "Can't allocate memory for error message\n");
}

TEST(ReportErrorTest, LackOfMemoryForAGrownBufferCutsTheMessageOff) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const std::string text(std::size_t{64} << 20, 'y');
    const Outcome outcome = inChild([&] {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_AS, &none);
        errno = 0;
        report_error(0, "%s", text.c_str());
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, std::string(4095, 'y') + '\n');
}
