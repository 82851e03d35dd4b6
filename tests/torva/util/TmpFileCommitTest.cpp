// What commit() promises; the life of the file apart from that is TmpFileTest.cpp.
#include "torva/util/TmpFile.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/SystemError.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

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
    rlimit limit = {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
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

TEST(TmpFileCommitTest, ACommittedFileIsWholeClosedAndStays) {
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

TEST(TmpFileCommitTest, AnEmptyFileCanBeCommitted) {
    const TempDirectory directory;
    {
        TmpFile file(directory / "f");
        file.commit();
    }
    EXPECT_EQ(directory.names().size(), 1U);
}

TEST(TmpFileCommitTest, ACommittedFileThatWasRenamedIsLeftAloneSilently) {
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

TEST(TmpFileCommitTest, ACommittedFileIsRemovedAfterAllWhenAskedTo) {
    const TempDirectory directory;
    {
        TmpFile file(directory / "f");
        file.commit();
        file.setAutoclean(true); // the rename failed, say
    }
    EXPECT_TRUE(directory.names().empty());
}

TEST(TmpFileCommitTest, AShortWriteIsThrownByCommitWithItsReasonAndTheFileRemoved) {
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

TEST(TmpFileCommitTest, TheReasonIsThatOfTheFirstFailingWrite) {
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

TEST(TmpFileCommitTest, AFailureThatWasClearedStillFailsTheCommit) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        std::string report;
        {
            TmpFile file(directory / "f");
            limitFileSize(4096);
            file << std::string(1 << 20, 'x');
            file.clear();
            limitFileSize(1 << 20);
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

TEST(TmpFileCommitTest, AStreamThatFailedWithoutAWriteIsAnInputOutputError) {
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

TEST(TmpFileCommitTest, AFailedFsyncOrCloseIsThrownWithTheCleanUpStillOn) {
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

TEST(TmpFileCommitTest, ASecondCommitHasNoFileToWriteTo) {
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
