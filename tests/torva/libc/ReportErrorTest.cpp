// report_error() of torva/libc/log.h.
#include "torva/libc/log.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

// Formats that are no literals are among what is tested.
#pragma GCC diagnostic ignored "-Wformat-security"

using torva::test::exhaustMemory;
using torva::test::inChild;
using torva::test::losesItsReader;
using torva::test::Outcome;
using torva::test::Streams;

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
