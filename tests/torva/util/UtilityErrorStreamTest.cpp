#include "torva/util/UtilityErrorStream.h"

#include "torva/libc/Child.h"
#include "torva/util/LibraryFaults.h"

#include <csignal>
#include <gtest/gtest.h>

using torva::utilityErrorStream;
using torva::UtilityErrorStream;
using torva::test::inChild;
using torva::test::Outcome;
using torva::test::Streams;

TEST(UtilityErrorStreamTest, AFinishedLineIsOnBothStreams) {
    const Outcome outcome = inChild([] {
        utilityErrorStream << "abc" << std::endl;
        return 0;
    });
    EXPECT_EQ(outcome.err, "abc\n");
    EXPECT_EQ(outcome.out, "abc\n");
}

TEST(UtilityErrorStreamTest, AnUnfinishedLineIsOnStandardErrorOnly) {
    const Outcome outcome = inChild([] {
        utilityErrorStream << "abc";
        return 0;
    });
    EXPECT_EQ(outcome.err, "abc");
    EXPECT_EQ(outcome.out, "");
}

TEST(UtilityErrorStreamTest, EachCharacterIsOnStandardErrorAtOnce) {
    const Outcome outcome = inChild([] {
        utilityErrorStream << "ab" << 12;
        ::_exit(0); // as in a crash: nothing is flushed any more
        return 0;
    });
    EXPECT_EQ(outcome.err, "ab12");
    EXPECT_EQ(outcome.out, "");
}

TEST(UtilityErrorStreamTest, TheCopyIsOutAsSoonAsTheLineIsFinished) {
    const Outcome outcome = inChild([] {
        utilityErrorStream << "one" << std::endl << "two";
        ::_exit(0);
        return 0;
    });
    EXPECT_EQ(outcome.err, "one\ntwo");
    EXPECT_EQ(outcome.out, "one\n");
}

TEST(UtilityErrorStreamTest, OnlyEndlAndFlushCopyAndEachTextOnce) {
    const Outcome outcome = inChild(
        [] {
            utilityErrorStream << "a\nb" << std::flush << std::flush << "c\n" << std::endl;
            return 0;
        },
        Streams::one);
    EXPECT_EQ(outcome.out, "a\nb"
                           "a\nb"
                           "c\n\n"
                           "c\n\n");
}

TEST(UtilityErrorStreamTest, EveryByteValuePasses) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    const Outcome outcome = inChild([&] {
        for (const char c : bytes) {
            utilityErrorStream.put(c);
        }
        utilityErrorStream.flush();
        utilityErrorStream << bytes << std::flush;
        return utilityErrorStream.good() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, bytes + bytes);
    EXPECT_EQ(outcome.out, bytes + bytes);
}

TEST(UtilityErrorStreamTest, TheEndOfAStreamCopiesNothing) {
    const Outcome outcome = inChild([] {
        UtilityErrorStream stream;
        stream << "abc";
        return 0;
    });
    EXPECT_EQ(outcome.err, "abc");
    EXPECT_EQ(outcome.out, "");
}

TEST(UtilityErrorStreamTest, AClosedStandardStreamDoesNotCostTheOtherItsCopy) {
    for (const int closed : {STDOUT_FILENO, STDERR_FILENO}) {
        const Outcome outcome = inChild([closed] {
            ::close(closed);
            utilityErrorStream << "abc" << std::endl;
            utilityErrorStream << "def" << std::endl;
            return utilityErrorStream.good() ? 0 : 1;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(closed == STDOUT_FILENO ? outcome.err : outcome.out, "abc\ndef\n");
    }
}

TEST(UtilityErrorStreamTest, AReaderThatHasGoneCostsNeitherTheProcessNorTheOtherCopy) {
    for (const int gone : {STDOUT_FILENO, STDERR_FILENO}) {
        SCOPED_TRACE(gone);
        const Outcome outcome = inChild([gone] {
            int fds[2];
            if (::pipe2(fds, O_CLOEXEC) != 0) {
                return 1;
            }
            ::dup2(fds[1], gone);
            ::close(fds[0]);
            utilityErrorStream << "abc" << std::endl;
            utilityErrorStream << "def" << std::endl;
            struct sigaction action = {};
            ::sigaction(SIGPIPE, nullptr, &action);
            return action.sa_handler == SIG_DFL ? 0 : 2;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(gone == STDOUT_FILENO ? outcome.err : outcome.out, "abc\ndef\n");
    }
}

TEST(UtilityErrorStreamTest, LackOfMemoryCostsStandardErrorNothing) {
    const std::string text(200, 'x');
    const Outcome outcome = inChild([&] {
        torva::test::libraryFaults.newFails = true;
        utilityErrorStream << text << "end" << std::endl;
        utilityErrorStream << "next" << std::endl;
        torva::test::libraryFaults.newFails = false;
        return utilityErrorStream.good() ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, text + "end\nnext\n");
}

TEST(UtilityErrorStreamTest, EndOfFileIsGivenBackAndWritesNothing) {
    struct Buffer : torva::UtilityErrorStreamBuf {
        using torva::UtilityErrorStreamBuf::overflow;
        using torva::UtilityErrorStreamBuf::sync;
    };
    const Outcome outcome = inChild([] {
        Buffer buffer;
        const bool same = buffer.overflow(Buffer::traits_type::eof()) == Buffer::traits_type::eof();
        const bool given = buffer.overflow('x') == 'x';
        return same && given && buffer.sync() == 0 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "x");
    EXPECT_EQ(outcome.out, "x");
}
