// Who may have made the lock directory, and what others may have left in it.
#include "torva/util/LockDirectory.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/FileLock.h"
#include "torva/util/TempDirectory.h"
#include "torva/util/UntrustedLocks.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using torva::FileLock;
using torva::LockMode;
using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::OtherProcess;
using torva::test::Outcome;
using torva::test::readFile;
using torva::test::writeFile;

namespace {

const char directory[] = "/var/lock/files";
const char name[] = "/etc/postfix/main.cf";
const std::string lockFile = "/var/lock/files/_etc_postfix_main.cf";
const std::string victim = "/var/tmp/victim";
const uid_t stranger = 4711;

using Handle = std::unique_ptr<file_lock, decltype(&file_lock_free)>;

mode_t modeOf(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

ino_t inodeOf(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::string thrownFor(LockMode mode) {
    try {
        const FileLock lock(name, mode);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

class LockDirectorySandboxTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("mkdir -p /var/lock/. && rm -rf /var/lock/files /var/tmp/victim"), 0);
        ::umask(022);
        writeFile(victim, "text");
    }

    void makeDirectory(mode_t mode) {
        ASSERT_EQ(::mkdir(directory, 0700), 0);
        ASSERT_EQ(::chmod(directory, mode), 0);
    }

    /// All four ways to a lock fail with the error, report what is wrong first, and
    /// leave no descriptor.
    void expectRefused(int error, const std::string& wrong) {
        const std::string text = std::strerror(error);
        const std::string end = "\nSystem error " + std::to_string(error) + ": " + text + "\n";
        const std::string report =
            (wrong.empty() ? "" : "Lock directory \"/var/lock/files\" " + wrong + "." + end) +
            "Unable to open file \"" + lockFile + "\": " + text + "." + end;
        const std::function<bool()> ways[] = {
            [&] {
                const Handle handle(file_lock_try(name, 1), &file_lock_free);
                return handle->fd == -1 && errno == error;
            },
            [&] {
                const Handle handle(file_lock_wait(name, 1), &file_lock_free);
                return handle->fd == -1 && errno == error;
            },
            [&] { return thrownFor(LockMode::fail) == "lock() failed: " + text; },
            [&] { return thrownFor(LockMode::wait) == "lock() failed: " + text; },
        };
        for (const auto& way : ways) {
            const Outcome outcome = inChild([&] {
                const auto before = openDescriptors();
                if (!way()) {
                    return 1;
                }
                return openDescriptors() == before ? 0 : 2;
            });
            EXPECT_EQ(outcome.exited, 0);
            EXPECT_EQ(outcome.err, report);
            EXPECT_EQ(outcome.out, report);
        }
    }
};

/// A stranger who opens the lock file to read, and takes its lock if told so.
int openAsStranger(bool take) {
    if (::setresuid(stranger, stranger, stranger) != 0) {
        return 1;
    }
    const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
    return fd != -1 && (!take || ::flock(fd, LOCK_EX | LOCK_NB) == 0) ? 0 : 2;
}

} // namespace

TEST_F(LockDirectorySandboxTest, TheDirectoryIsMadeForRootAloneWhateverTheUmask) {
    for (const mode_t mask : {0, 022, 077}) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        ::umask(mask);
        { const FileLock lock(name, LockMode::fail); }
        EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
        EXPECT_EQ(modeOf(lockFile), static_cast<mode_t>(S_IFREG | (0644 & ~mask)));
    }
}

TEST_F(LockDirectorySandboxTest, ADirectoryOfSomebodyElseIsRefusedAndNothingIsMadeInIt) {
    makeDirectory(0700);
    ASSERT_EQ(::chown(directory, stranger, stranger), 0);
    ASSERT_EQ(::symlink(victim.c_str(), lockFile.c_str()), 0);
    expectRefused(EPERM, "belongs to user 4711, not to user 0");
    EXPECT_EQ(readFile(victim), "text");
    EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
}

TEST_F(LockDirectorySandboxTest, ADirectoryThatOthersMayWriteToIsRefusedAndKeepsItsMode) {
    const struct {
        mode_t mode;
        const char* text;
    } cases[] = {{0720, "0720"}, {0702, "0702"}, {01777, "1777"}, {0775, "0775"}};
    for (const auto& c : cases) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(c.mode);
        expectRefused(EPERM,
                      std::string("is writable by its group or by others (mode ") + c.text + ")");
        EXPECT_EQ(modeOf(directory), S_IFDIR | c.mode);
        EXPECT_EQ(modeOf(lockFile), 0U);
    }
}

TEST_F(LockDirectorySandboxTest, ALinkInItsPlaceIsNotFollowed) {
    ASSERT_EQ(::mkdir("/var/lock/other", 0700), 0);
    ASSERT_EQ(::symlink("/var/lock/other", directory), 0);
    expectRefused(ENOTDIR, "is a symbolic link");
    EXPECT_EQ(std::system("rmdir /var/lock/other"), 0) << "nothing was made in it";
    expectRefused(ENOTDIR, "is a symbolic link");
    EXPECT_EQ(modeOf("/var/lock/other"), 0U) << "the missing target was made";
}

TEST_F(LockDirectorySandboxTest, WhatIsNoDirectoryIsRefused) {
    ASSERT_EQ(::mkfifo(directory, 0600), 0);
    expectRefused(ENOTDIR, "");
}

TEST_F(LockDirectorySandboxTest, OneOfOursThatOthersMayReadIsClosedToThem) {
    for (const mode_t mode : {0755, 0750, 0711, 0704}) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(mode);
        const Handle handle(file_lock_try(name, 1), &file_lock_free);
        EXPECT_GT(handle->fd, 2);
        EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
    }
}

TEST_F(LockDirectorySandboxTest, TheHandleIsTheOnlyDescriptorAndNoneIsLeftAfterIt) {
    const auto before = openDescriptors();
    for (const mode_t mode : {0700, 0755}) { // the second one is closed to others first
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(mode);
        writeFile(lockFile, "");
        {
            const Handle handle(file_lock_try(name, 1), &file_lock_free);
            auto during = before;
            during.insert(handle->fd);
            EXPECT_EQ(openDescriptors(), during);
            EXPECT_NE(thrownFor(LockMode::fail), "");
            EXPECT_EQ(openDescriptors(), during);
        }
        EXPECT_EQ(openDescriptors(), before);
    }
}

TEST_F(LockDirectorySandboxTest, ADirectoryThatCannotBeClosedToOthersIsAnError) {
    makeDirectory(0755);
    const Outcome outcome = inChild([] {
        const auto before = openDescriptors();
        if (!failSyscall(SYS_fchmod, EROFS)) {
            return static_cast<int>(noFilters);
        }
        if (thrownFor(LockMode::fail) != "lock() failed: Read-only file system") {
            return 1;
        }
        return openDescriptors() == before ? 0 : 2;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(modeOf(lockFile), 0U);
}

TEST_F(LockDirectorySandboxTest, LinksInItAreNotFollowed) {
    for (const char* target : {"/var/tmp/victim", "/var/tmp/missing"}) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files /var/tmp/missing"), 0);
        makeDirectory(0700);
        ASSERT_EQ(::symlink(target, lockFile.c_str()), 0);
        expectRefused(ELOOP, "");
        EXPECT_EQ(readFile(victim), "text");
        EXPECT_EQ(modeOf("/var/tmp/missing"), 0U);
    }
}

TEST_F(LockDirectorySandboxTest, AFifoInItIsRefusedAtOnce) {
    makeDirectory(0700);
    ASSERT_EQ(::mkfifo(lockFile.c_str(), 0600), 0);
    expectRefused(EPERM, "");
}

TEST_F(LockDirectorySandboxTest, AFileWithASecondNameIsRefusedAndKeepsItsContent) {
    makeDirectory(0700);
    writeFile(lockFile, "text");
    ASSERT_EQ(::link(lockFile.c_str(), "/var/lock/second"), 0);
    expectRefused(EMLINK, "");
    EXPECT_EQ(readFile(lockFile), "text");
    ASSERT_EQ(::unlink("/var/lock/second"), 0);
    EXPECT_EQ(thrownFor(LockMode::fail), "");
}

TEST_F(LockDirectorySandboxTest, WhoCouldOpenALockFileCannotHoldItOnceTheDirectoryIsClosed) {
    for (const bool take : {true, false}) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(0755);
        writeFile(lockFile, "");
        const ino_t before = inodeOf(lockFile);
        const OtherProcess other([&] { return openAsStranger(take); });
        ASSERT_EQ(other.result(), 0);
        EXPECT_EQ(thrownFor(LockMode::fail), "");
        EXPECT_NE(inodeOf(lockFile), before) << "the stranger could take this lock later on";
        EXPECT_EQ(thrownFor(LockMode::fail), "");
    }
}

TEST_F(LockDirectorySandboxTest, ALockOfOursIsRespectedWhenTheDirectoryIsClosed) {
    makeDirectory(0755);
    OtherProcess holder([] {
        const int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        return ::flock(fd, LOCK_EX | LOCK_NB);
    });
    ASSERT_EQ(holder.result(), 0);
    const ino_t before = inodeOf(lockFile);
    EXPECT_EQ(thrownFor(LockMode::fail),
              std::string("lock(") + name + ") failed: file is already locked");
    EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
    EXPECT_EQ(inodeOf(lockFile), before);
    holder.end();
    EXPECT_EQ(thrownFor(LockMode::fail), "");
}

TEST_F(LockDirectorySandboxTest, ASetUserIdProgramOfAStrangerIsNoneOfOurs) {
    makeDirectory(0755);
    writeFile(lockFile, "");
    const OtherProcess other([] {
        const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
        return ::flock(fd, LOCK_EX | LOCK_NB) | ::setresuid(stranger, 0, 0);
    });
    ASSERT_EQ(other.result(), 0);
    EXPECT_EQ(thrownFor(LockMode::fail), "");
}

TEST_F(LockDirectorySandboxTest, WithoutProcNothingIsRemoved) {
    makeDirectory(0755);
    writeFile(lockFile, "");
    const ino_t before = inodeOf(lockFile);
    const Outcome outcome = inChild([] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
            return static_cast<int>(noFilters);
        }
        return thrownFor(LockMode::fail).empty() ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
    EXPECT_EQ(inodeOf(lockFile), before);
}

TEST_F(LockDirectorySandboxTest, WithoutMemoryToLookAroundNothingIsRemovedAndNoDescriptorIsLeft) {
    if (!torva::test::allocation_faults_work) {
        GTEST_SKIP() << torva::test::no_allocation_faults;
    }
    makeDirectory(0755);
    writeFile(lockFile, "");
    const ino_t inode = inodeOf(lockFile);
    const auto before = openDescriptors();
    {
        const torva::test::AllocationFaults no_stream_of_a_directory(30000);
        EXPECT_EQ(thrownFor(LockMode::fail), "");
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(inodeOf(lockFile), inode);
    EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
}

TEST_F(LockDirectorySandboxTest, ADirectoryThatCannotBeLookedAtIsRefused) {
    makeDirectory(0700);
    const Outcome outcome = inChild([] {
        const auto before = openDescriptors();
        if (!torva::test::failFstat(EIO)) {
            return static_cast<int>(noFilters);
        }
        const bool refused = thrownFor(LockMode::fail) == "lock() failed: Input/output error";
        return refused && openDescriptors() == before ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(inodeOf(lockFile), 0U) << "nothing is made in it";
}

TEST_F(LockDirectorySandboxTest, LookingAroundKeepsErrnoEvenWhenNothingCanBeClosed) {
    makeDirectory(0700);
    writeFile(lockFile, "");
    const Outcome outcome = inChild([] {
        const int fd = ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (!failSyscall(SYS_close, EIO)) {
            return static_cast<int>(noFilters);
        }
        errno = EXDEV;
        torva::removeUntrustedLocks(fd);
        return errno == EXDEV ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(inodeOf(lockFile), 0U) << "nobody has it open";
}

/// Takes and releases the lock with so many descriptors to spare.
///
/// \return whether it could be taken
bool lockWithin(rlim_t spare) {
    const Outcome outcome = inChild([spare] {
        const auto before = openDescriptors();
        const rlim_t limit = static_cast<rlim_t>(*before.rbegin()) + 1 + spare;
        const rlimit few = {limit, limit};
        ::setrlimit(RLIMIT_NOFILE, &few);
        const bool taken = thrownFor(LockMode::fail).empty();
        return openDescriptors() != before ? 2 : taken ? 0 : 1;
    });
    EXPECT_TRUE(outcome.exited == 0 || outcome.exited == 1) << outcome.exited;
    return outcome.exited == 0;
}

TEST_F(LockDirectorySandboxTest, WithoutDescriptorsToLookAroundNothingIsRemoved) {
    bool removed = false;
    for (rlim_t spare = 0; !removed; ++spare) {
        ASSERT_LT(spare, 12U);
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(0755);
        writeFile(lockFile, "");
        const ino_t inode = inodeOf(lockFile);
        // One of ours has it open: it must never go, whatever cannot be looked at.
        const OtherProcess other([] { return ::open(lockFile.c_str(), O_RDONLY) != -1 ? 0 : 1; });
        ASSERT_EQ(other.result(), 0);
        lockWithin(spare);
        EXPECT_EQ(inodeOf(lockFile), inode) << spare;
        // One that nobody has open goes as soon as that can be told.
        ASSERT_EQ(::chmod(directory, 0755), 0);
        const std::string unused = "/var/lock/files/unused";
        writeFile(unused, "");
        removed = lockWithin(spare) && inodeOf(unused) == 0;
    }
}

TEST_F(LockDirectorySandboxTest, AWaiterWhoseFileWasRemovedTakesTheLockOfTheNewOne) {
    OtherProcess holder([] {
        torva::lock(name, true, LockMode::fail);
        return 0;
    });
    ASSERT_EQ(holder.result(), 0);
    const OtherProcess waiter([] {
        torva::lock(name, true, LockMode::wait);
        return 0;
    });
    ASSERT_TRUE(torva::test::waitsForLock(waiter.pid()));
    ASSERT_EQ(::unlink(lockFile.c_str()), 0);
    holder.end();
    ASSERT_EQ(waiter.result(), 0);
    EXPECT_EQ(thrownFor(LockMode::fail),
              std::string("lock(") + name + ") failed: file is already locked");
}
