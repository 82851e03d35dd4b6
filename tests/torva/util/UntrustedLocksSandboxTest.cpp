// Lock files that others could open before the lock directory was closed to them.
#include "torva/util/UntrustedLocks.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/LockDirectoryFixture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace torva::test;
using torva::LockMode;

namespace {

using UntrustedLocksSandboxTest = LockDirectoryFixture;

/// A stranger who opens the lock file to read, and takes its lock if told so.
int openAsStranger(bool take) {
    if (::setresuid(stranger, stranger, stranger) != 0) {
        return 1;
    }
    const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
    return fd != -1 && (!take || ::flock(fd, LOCK_EX | LOCK_NB) == 0) ? 0 : 2;
}

} // namespace

TEST_F(UntrustedLocksSandboxTest, WhoCouldOpenALockFileCannotHoldItOnceTheDirectoryIsClosed) {
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

TEST_F(UntrustedLocksSandboxTest, ALockOfOursIsRespectedWhenTheDirectoryIsClosed) {
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

TEST_F(UntrustedLocksSandboxTest, ASetUserIdProgramOfAStrangerIsNoneOfOurs) {
    makeDirectory(0755);
    writeFile(lockFile, "");
    const OtherProcess other([] {
        const int fd = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
        return ::flock(fd, LOCK_EX | LOCK_NB) | ::setresuid(stranger, 0, 0);
    });
    ASSERT_EQ(other.result(), 0);
    EXPECT_EQ(thrownFor(LockMode::fail), "");
}

TEST_F(UntrustedLocksSandboxTest, WithoutProcNothingIsRemoved) {
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

TEST_F(UntrustedLocksSandboxTest, WithoutMemoryToLookAroundNothingIsRemovedAndNoDescriptorIsLeft) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    makeDirectory(0755);
    writeFile(lockFile, "");
    const ino_t inode = inodeOf(lockFile);
    const auto before = openDescriptors();
    {
        const AllocationFaults no_stream_of_a_directory(30000);
        EXPECT_EQ(thrownFor(LockMode::fail), "");
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(inodeOf(lockFile), inode);
    EXPECT_EQ(modeOf(directory), static_cast<mode_t>(S_IFDIR | 0700));
}

TEST_F(UntrustedLocksSandboxTest, LookingAroundKeepsErrnoEvenWhenNothingCanBeClosed) {
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

TEST_F(UntrustedLocksSandboxTest, AListingThatBreaksOffRemovesNothing) {
    int kept = 0;
    for (int later = 1; later <= 6; ++later) {
        ASSERT_EQ(std::system("rm -rf /var/lock/files"), 0);
        makeDirectory(0700);
        writeFile(lockFile, "");
        const Outcome outcome = inChild([later] {
            const int fd = ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (!failSyscall(SYS_getdents64, EIO, 0, static_cast<std::uint32_t>(fd + later))) {
                return static_cast<int>(noFilters);
            }
            torva::removeUntrustedLocks(fd);
            return 0;
        });
        if (outcome.exited == noFilters) {
            GTEST_SKIP() << "the kernel allows no system call filters";
        }
        EXPECT_EQ(outcome.exited, 0);
        kept += inodeOf(lockFile) == 0U ? 0 : 1;
    }
    EXPECT_EQ(kept, 3) << "the lock directory, the processes, the descriptors of one of them";
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

TEST_F(UntrustedLocksSandboxTest, WithoutDescriptorsToLookAroundNothingIsRemoved) {
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

TEST_F(UntrustedLocksSandboxTest, AWaiterWhoseFileWasRemovedTakesTheLockOfTheNewOne) {
    OtherProcess holder([] {
        torva::lock(name, true, LockMode::fail);
        return 0;
    });
    ASSERT_EQ(holder.result(), 0);
    const OtherProcess waiter([] {
        torva::lock(name, true, LockMode::wait);
        return 0;
    });
    ASSERT_TRUE(waitsForLock(waiter.pid()));
    ASSERT_EQ(::unlink(lockFile.c_str()), 0);
    holder.end();
    ASSERT_EQ(waiter.result(), 0);
    EXPECT_EQ(thrownFor(LockMode::fail),
              std::string("lock(") + name + ") failed: file is already locked");
}
