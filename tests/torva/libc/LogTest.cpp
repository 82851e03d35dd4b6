#include "torva/libc/log.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>

// Formats that are no literals are among what is tested.
#pragma GCC diagnostic ignored "-Wformat-security"

using torva::test::exhaustMemory;
using torva::test::inChild;
using torva::test::losesItsReader;
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
