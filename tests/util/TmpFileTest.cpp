#include "util/TmpFile.h"

#include "libc/Child.h"
#include "libc/SyscallFault.h"
#include "util/DirectoryWatch.h"
#include "util/SystemError.h"
#include "util/TempDirectory.h"

#include <cerrno>
#include <csignal>
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

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

/// Files may not grow past the size, and are told so by an error, not a signal.
void limitFileSize(rlim_t size) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {size, size};
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

/// Prints the text of what commit() throws, and whether the file is to be removed.
int printCommit(TmpFile& file) {
    try {
        file.commit();
    } catch (const SystemError& error) {
        std::printf("%s, %s", error.what(), file.autoclean() ? "armed" : "disarmed");
        return 0;
    }
    return 1;
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
    EXPECT_FALSE(exists(path));
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

TEST(TmpFileTest, ACommittedFileIsWholeClosedAndStays) {
    const TempDirectory directory;
    const auto before = openDescriptors();
    const std::string text(3 << 20, 'x');
    std::string path;
    {
        TmpFile file(directory / "f");
        path = file.path();
        file << text << "end";
        file.commit();
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_FALSE(file.autoclean());
        EXPECT_TRUE(readFile(path) == text + "end");
    }
    EXPECT_TRUE(exists(path));
}

TEST(TmpFileTest, AnEmptyFileCanBeCommitted) {
    const TempDirectory directory;
    {
        TmpFile file(directory / "f");
        file.commit();
    }
    EXPECT_EQ(directory.names().size(), 1U);
}

TEST(TmpFileTest, ACommittedFileThatWasRenamedIsLeftAloneSilently) {
    const TempDirectory directory;
    const std::string target = directory / "target";
    writeFile(target, "old");
    const Outcome outcome = inChild([&] {
        TmpFile file(target + ".");
        file << "new";
        file.commit();
        return ::rename(file.path().c_str(), target.c_str());
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(readFile(target), "new");
    EXPECT_EQ(directory.names(), std::set<std::string>{"target"});
}

TEST(TmpFileTest, ACommittedFileIsRemovedAfterAllWhenAskedTo) {
    const TempDirectory directory;
    {
        TmpFile file(directory / "f");
        file.commit();
        file.setAutoclean(true); // the rename failed, say
    }
    EXPECT_TRUE(directory.names().empty());
}

TEST(TmpFileTest, AShortWriteIsThrownByCommitWithItsReasonAndTheFileRemoved) {
    const TempDirectory directory;
    const struct {
        const char* what;
        std::size_t size;
        rlim_t limit;
    } cases[] = {
        {"written by commit itself", 100, 50},
        {"nothing fits", 100, 0},
        {"while writing to the stream", 1 << 20, 4096},
        {"last byte", 65536, 65535},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Outcome outcome = inChild([&] {
            std::string report;
            {
                TmpFile file(directory / "f");
                limitFileSize(c.limit);
                file << std::string(c.size, 'x');
                errno = 0; // the reason is not to be found there
                try {
                    file.commit();
                } catch (const SystemError& error) {
                    report = error.what();
                    report += file.autoclean() ? ", armed" : ", disarmed";
                }
            }
            return report == "write: File too large, armed" ? 0 : 1;
        });
        EXPECT_EQ(outcome.exited, 0) << outcome.err;
        EXPECT_TRUE(directory.names().empty());
    }
}

TEST(TmpFileTest, TheReasonIsThatOfTheFirstFailingWrite) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        TmpFile file(directory / "f");
        if (!failSyscall(SYS_write, ENOSPC) || !failSyscall(SYS_writev, ENOSPC)) {
            return static_cast<int>(noFilters);
        }
        file << std::string(100000, 'x');
        if (file.good()) {
            return 1;
        }
        file.clear();
        failSyscall(SYS_write, EDQUOT);
        failSyscall(SYS_writev, EDQUOT);
        file << std::string(100000, 'x');
        try {
            file.commit();
        } catch (const SystemError& error) {
            return error.code() == ENOSPC ? 0 : 2;
        }
        return 3;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
}

TEST(TmpFileTest, AFailureThatWasClearedStillFailsTheCommit) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        std::string report;
        {
            TmpFile file(directory / "f");
            limitFileSize(4096);
            file << std::string(1 << 20, 'x');
            file.clear();
            const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
            ::setrlimit(RLIMIT_FSIZE, &none);
            file << "more";
            try {
                file.commit();
            } catch (const SystemError& error) {
                report = error.what();
            }
        }
        return report == "write: File too large" ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_TRUE(directory.names().empty());
}

TEST(TmpFileTest, AStreamThatFailedWithoutAWriteIsAnInputOutputError) {
    const TempDirectory directory;
    TmpFile file(directory / "f");
    file << "text";
    file.setstate(std::ios_base::failbit);
    try {
        file.commit();
        ADD_FAILURE();
    } catch (const SystemError& error) {
        EXPECT_STREQ(error.what(), "write: Input/output error");
    }
    EXPECT_TRUE(file.autoclean());
}

TEST(TmpFileTest, AFailedFsyncOrCloseIsThrownWithTheCleanUpStillOn) {
    const struct {
        long number;
        int error;
        const char* wanted;
    } cases[] = {
        {SYS_fsync, EIO, "fsync: Input/output error, armed"},
        {SYS_close, ENOSPC, "close: No space left on device, armed"},
    };
    const TempDirectory directory;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.wanted);
        const Outcome outcome = inChild([&] {
            TmpFile file(directory / "f");
            file << "text";
            if (!failSyscall(c.number, c.error)) {
                return static_cast<int>(noFilters);
            }
            return printCommit(file);
        });
        if (outcome.exited == noFilters) {
            GTEST_SKIP() << "the kernel allows no system call filters";
        }
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(outcome.out, c.wanted);
        EXPECT_TRUE(directory.names().empty());
    }
}

TEST(TmpFileTest, ASecondCommitHasNoFileToWriteTo) {
    const TempDirectory directory;
    TmpFile file(directory / "f");
    file.commit();
    try {
        file.commit();
        ADD_FAILURE();
    } catch (const SystemError& error) {
        EXPECT_STREQ(error.what(), "write: Bad file descriptor");
    }
    ::unlink(file.path().c_str());
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
