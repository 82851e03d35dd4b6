#include "torva/util/AutocleanOFStream.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/DirectoryWatch.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using torva::AutocleanOFStream;
using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
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
        {std::ios_base::app, "oldsnew"},
        {std::ios_base::out | std::ios_base::app | std::ios_base::binary, "oldsnew"},
        {std::ios_base::in, "news"},
    };
    for (const auto& c : cases) {
        writeFile(directory / "scratch", "olds");
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
    errno = 0;
    AutocleanOFStream missing(directory / "missing/scratch");
    EXPECT_EQ(errno, ENOENT);
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

TEST(AutocleanOFStreamTest, TheDescriptorIsNoneOfTheStandardStreamsEvenIfTheyAreClosed) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        ::close(0);
        ::close(1);
        ::close(2);
        AutocleanOFStream opened(directory / "opened");
        if (!opened.is_open() || ::fcntl(0, F_GETFD) != -1 || ::fcntl(1, F_GETFD) != -1 ||
            ::fcntl(2, F_GETFD) != -1) {
            return 1;
        }
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        AutocleanOFStream attached(directory / "attached", null);
        ::close(null);
        return attached.is_open() && ::fcntl(0, F_GETFD) == -1 ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(AutocleanOFStreamTest, WithoutADescriptorAboveTheStandardStreamsTheOpeningFails) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        ::close(0);
        const rlimit three = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &three);
        const AutocleanOFStream stream(directory / "scratch");
        return stream.fail() && ::fcntl(0, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_TRUE(directory.names().empty());
}

TEST(AutocleanOFStreamTest, AModeThatNoFileHasFailsAndTouchesNothing) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    writeFile(directory / "other", "old");
    AutocleanOFStream stream(directory / "scratch", std::ios_base::app | std::ios_base::trunc);
    EXPECT_TRUE(stream.fail());
    EXPECT_FALSE(stream.is_open());
    EXPECT_EQ(directory.names(), std::set<std::string>{"other"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST(AutocleanOFStreamTest, AStreamAtTheEndStandsThere) {
    const TempDirectory directory;
    writeFile(directory / "scratch", "old");
    AutocleanOFStream stream(directory / "scratch",
                             std::ios_base::in | std::ios_base::out | std::ios_base::ate);
    stream << "new" << std::flush;
    EXPECT_EQ(readFile(directory / "scratch"), "oldnew");
}

TEST(AutocleanOFStreamTest, AnOpenFileIsWrittenToWhateverHasItsNameNow) {
    const TempDirectory directory;
    const std::string name = directory / "scratch";
    writeFile(directory / "victim", "theirs");
    const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(std::rename(name.c_str(), (directory / "moved").c_str()), 0);
    ASSERT_EQ(::symlink("victim", name.c_str()), 0);
    const auto before = openDescriptors();
    {
        AutocleanOFStream stream(name, fd);
        stream << "ours";
        stream.close();
        EXPECT_TRUE(stream.good());
        // The caller's descriptor stays the caller's.
        EXPECT_EQ(openDescriptors(), before);
    }
    ::close(fd);
    EXPECT_EQ(readFile(directory / "moved"), "ours");
    EXPECT_EQ(readFile(directory / "victim"), "theirs");
    EXPECT_EQ(directory.names(), (std::set<std::string>{"moved", "victim"}));
}

TEST(AutocleanOFStreamTest, WhatIsNoDescriptorFailsLikeAnOpening) {
    const TempDirectory directory;
    const AutocleanOFStream stream(directory / "scratch", -1);
    EXPECT_TRUE(stream.fail());
    EXPECT_FALSE(stream.is_open());
}

TEST(AutocleanOFStreamTest, ADescriptorThatIsOnlyReadFailsAndNoCopyOfItIsLeft) {
    const TempDirectory directory;
    writeFile(directory / "scratch", "text");
    const int fd = ::open((directory / "scratch").c_str(), O_RDONLY | O_CLOEXEC);
    const auto before = openDescriptors();
    {
        const AutocleanOFStream stream(directory / "scratch", fd);
        EXPECT_TRUE(stream.fail());
        EXPECT_EQ(openDescriptors(), before);
    }
    ::close(fd);
}

TEST(AutocleanOFStreamTest, AnErrorThatOnlyCloseReportsShowsInTheState) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        AutocleanOFStream stream(directory / "scratch");
        stream << "text" << std::flush;
        if (!failSyscall(SYS_close, ENOSPC)) {
            return static_cast<int>(noFilters);
        }
        stream.close();
        return stream.fail() && errno == ENOSPC ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
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
