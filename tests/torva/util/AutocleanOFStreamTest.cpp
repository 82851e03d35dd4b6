#include "torva/util/AutocleanOFStream.h"

#include "torva/libc/Child.h"
#include "torva/util/DirectoryWatch.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

using torva::AutocleanOFStream;
using torva::test::inChild;
using torva::test::openDescriptors;
using torva::test::Outcome;
using torva::test::readFile;
using torva::test::TempDirectory;
using torva::test::writeFile;

TEST(AutocleanOFStreamTest, TheFileIsThereForAsLongAsTheStream) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    {
        AutocleanOFStream stream(directory / "scratch");
        stream << "text" << std::flush;
        EXPECT_EQ(readFile(directory / "scratch"), "text");
        stream.close();
        EXPECT_TRUE(stream.good());
        EXPECT_EQ(readFile(directory / "scratch"), "text");
    }
    EXPECT_TRUE(directory.names().empty());
    EXPECT_EQ(openDescriptors(), before);
}

TEST(AutocleanOFStreamTest, DestroyingOneWhoseFileIsGoneLeavesErrnoAndReportsNothing) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        {
            AutocleanOFStream stream(directory / "scratch");
            stream << "text";
            ::unlink((directory / "scratch").c_str());
            errno = EXDEV;
        }
        return errno == EXDEV ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}

TEST(AutocleanOFStreamTest, AFileThatWasRenamedAwayStays) {
    const TempDirectory directory;
    {
        AutocleanOFStream stream(directory / "scratch");
        stream << "text";
        stream.close();
        ASSERT_EQ(std::rename((directory / "scratch").c_str(), (directory / "kept").c_str()), 0);
    }
    EXPECT_EQ(directory.names(), std::set<std::string>{"kept"});
    EXPECT_EQ(readFile(directory / "kept"), "text");
}

TEST(AutocleanOFStreamTest, ModesAreThoseOfAnOutputFileStream) {
    const TempDirectory directory;
    const struct {
        std::ios_base::openmode mode;
        const char* wanted;
    } cases[] = {
        {std::ios_base::out, "new"},
        {std::ios_base::trunc, "new"},
        {std::ios_base::app, "oldnew"},
        {std::ios_base::out | std::ios_base::app | std::ios_base::binary, "oldnew"},
    };
    for (const auto& c : cases) {
        writeFile(directory / "scratch", "old");
        AutocleanOFStream stream(directory / "scratch", c.mode);
        stream << "new" << std::flush;
        EXPECT_EQ(readFile(directory / "scratch"), c.wanted);
    }
}

TEST(AutocleanOFStreamTest, AFailedOpeningShowsInTheStateAndTheFileIsRemovedAllTheSame) {
    const TempDirectory directory;
    {
        // Opening for input too needs a file that is there.
        AutocleanOFStream stream(directory / "scratch", std::ios_base::in | std::ios_base::out);
        EXPECT_FALSE(stream.is_open());
        EXPECT_TRUE(stream.fail());
        writeFile(directory / "scratch", "text");
    }
    EXPECT_TRUE(directory.names().empty());
    AutocleanOFStream missing(directory / "missing/scratch");
    EXPECT_TRUE(missing.fail());
}

TEST(AutocleanOFStreamTest, ChildrenDoNotInheritTheDescriptor) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    AutocleanOFStream stream(directory / "scratch");
    auto added = openDescriptors();
    for (const int fd : before) {
        added.erase(fd);
    }
    ASSERT_EQ(added.size(), 1U);
    EXPECT_EQ(::fcntl(*added.begin(), F_GETFD), FD_CLOEXEC);
}

TEST(AutocleanOFStreamTest, TheFileIsRemovedBeforeItIsClosed) {
    const TempDirectory directory;
    const torva::test::DirectoryWatch watch(directory.path());
    {
        AutocleanOFStream stream(directory / "scratch");
        stream << "text";
    }
    EXPECT_EQ(watch.events(), "create delete close ");
}

TEST(AutocleanOFStreamTest, WhatCannotBeWrittenShowsInTheStateAndIsNoTroubleLater) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {10, 10};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        {
            AutocleanOFStream checked(directory / "checked");
            checked << "more than ten bytes";
            checked.close();
            if (!checked.fail()) {
                return 1;
            }
            AutocleanOFStream unchecked(directory / "unchecked");
            unchecked << "more than ten bytes";
            errno = EXDEV;
        }
        return errno == EXDEV ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(directory.names().empty());
}
