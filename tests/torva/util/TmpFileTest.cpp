#include "torva/util/TmpFile.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/DirectoryWatch.h"
#include "torva/util/SystemError.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <typeinfo>

using torva::ExSystemError;
using torva::SystemError;
using torva::TmpFile;
using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::Outcome;
using torva::test::readFile;
using torva::test::TempDirectory;
using torva::test::writeFile;

namespace {

bool fileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

} // namespace

TEST(TmpFileTest, TheNameIsThePrefixAndSixCharactersAndTheFileIsRemoved) {
    const TempDirectory directory;
    const std::string prefix = directory / "master.cf.";
    std::string path;
    {
        TmpFile file(prefix);
        path = file.path();
        EXPECT_EQ(path.substr(0, prefix.size()), prefix);
        EXPECT_EQ(path.size(), prefix.size() + 6);
        EXPECT_NE(path, prefix + "XXXXXX");
        EXPECT_TRUE(file.autoclean());
        struct stat status;
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
        EXPECT_EQ(status.st_size, 0);
    }
    EXPECT_FALSE(fileExists(path));
}

TEST(TmpFileTest, WithoutAutocleanTheFileStaysWithWhatWasWritten) {
    const TempDirectory directory;
    std::string path;
    {
        TmpFile file(directory / "f", false);
        path = file.path();
        file << "text " << 1 << '\n';
    }
    EXPECT_EQ(readFile(path), "text 1\n");
}

TEST(TmpFileTest, AutocleanCanBeTurnedOffAndOn) {
    const TempDirectory directory;
    { TmpFile(directory / "on", false).setAutoclean(true); }
    { TmpFile(directory / "off").setAutoclean(false); }
    const auto names = directory.names();
    ASSERT_EQ(names.size(), 1U);
    EXPECT_EQ(names.begin()->substr(0, 3), "off");
}

TEST(TmpFileTest, WhatAnExternalCommandReadsIsThereAfterAFlush) {
    const TempDirectory directory;
    TmpFile file(directory / "f");
    file << "text" << std::flush;
    EXPECT_EQ(readFile(file.path()), "text");
}

TEST(TmpFileTest, AFailedCreationIsThrownByErrnoWithTwoColonsAndCreatesNothing) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    try {
        TmpFile file(directory / "missing/f");
        ADD_FAILURE();
    } catch (const SystemError& error) {
        EXPECT_TRUE(typeid(error) == typeid(ExSystemError<2>)) << typeid(error).name();
        EXPECT_STREQ(error.what(), "mkstemp() failed: : No such file or directory");
    }
    writeFile(directory / "file", "");
    try {
        TmpFile file(directory / "file/f");
        ADD_FAILURE();
    } catch (const SystemError& error) {
        EXPECT_TRUE(typeid(error) == typeid(SystemError)) << typeid(error).name();
        EXPECT_STREQ(error.what(), "mkstemp() failed: : Not a directory");
    }
    EXPECT_EQ(directory.names(), std::set<std::string>{"file"});
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TmpFileTest, AStreamThatCannotBeOpenedLeavesNeitherFileNorDescriptor) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        const auto before = openDescriptors();
        if (!failSyscall(SYS_fcntl, EBADF, 1, F_GETFL)) { // which fdopen(3) uses
            return static_cast<int>(noFilters);
        }
        try {
            TmpFile file(directory / "f");
            return 1;
        } catch (const SystemError& error) {
            std::fputs(error.what(), stdout);
        }
        return openDescriptors() == before ? 0 : 2;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "mkstemp() failed: : Bad file descriptor");
    EXPECT_TRUE(directory.names().empty());
}

TEST(TmpFileTest, TheDescriptorIsCloseOnExecAndAboveTheStandardStreams) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        ::close(0);
        ::close(1);
        ::close(2);
        const auto before = openDescriptors();
        TmpFile file(directory / "f");
        auto added = openDescriptors();
        for (const int fd : before) {
            added.erase(fd);
        }
        if (added.size() != 1 || *added.begin() <= 2) {
            return 1;
        }
        return ::fcntl(*added.begin(), F_GETFD) == FD_CLOEXEC ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(TmpFileTest, WithoutADescriptorAboveTheStandardStreamsNothingIsLeft) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        ::close(0);
        const rlimit three = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &three);
        try {
            TmpFile file(directory / "f");
            return 1;
        } catch (const SystemError& error) {
            std::fputs(error.what(), stdout);
        }
        return ::fcntl(0, F_GETFD) == -1 ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "mkstemp() failed: : Invalid argument");
    EXPECT_TRUE(directory.names().empty());
}

TEST(TmpFileTest, TheDescriptorIsTheFileItselfWhateverItsNameStandsFor) {
    const TempDirectory directory;
    TmpFile file(directory / "f");
    struct stat named {};
    ASSERT_EQ(::stat(file.path().c_str(), &named), 0);
    ASSERT_EQ(std::rename(file.path().c_str(), (directory / "moved").c_str()), 0);
    writeFile(file.path(), "another");
    struct stat held {};
    ASSERT_EQ(::fstat(file.descriptor(), &held), 0);
    EXPECT_EQ(held.st_ino, named.st_ino);
    file << "text";
    file.commit();
    EXPECT_EQ(file.descriptor(), -1);
    EXPECT_EQ(readFile(directory / "moved"), "text");
    ::unlink(file.path().c_str());
}

TEST(TmpFileTest, AFailedRemovalIsOneLineOnStandardErrorAndKeepsErrno) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    const Outcome outcome = inChild([&] {
        {
            TmpFile file(directory / "f");
            ::unlink(file.path().c_str());
            errno = EXDEV;
        }
        return errno == EXDEV ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "TmpFile autoclean failed: No such file or directory\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TmpFileTest, AFailedRemovalThrowsNotEvenWhenStandardErrorDoes) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        ::close(STDERR_FILENO);
        std::cerr.exceptions(std::ios_base::badbit);
        TmpFile file(directory / "f");
        ::unlink(file.path().c_str());
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(TmpFileTest, TheFileIsRemovedBeforeItIsClosed) {
    const TempDirectory directory;
    const torva::test::DirectoryWatch watch(directory.path());
    {
        TmpFile file(directory / "f");
        file << "text";
    }
    EXPECT_EQ(watch.events(), "create delete close ");
}

TEST(TmpFileTest, AnExceptionOnTheWayRemovesTheFile) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    try {
        TmpFile file(directory / "f");
        file << "text";
        throw std::runtime_error("on the way");
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "on the way");
    }
    EXPECT_TRUE(directory.names().empty());
    EXPECT_EQ(openDescriptors(), before);
}
