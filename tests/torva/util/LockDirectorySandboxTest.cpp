// Who may have made the lock directory, and what is in it. What others may have open there
// is UntrustedLocksSandboxTest.cpp.
#include "torva/util/LockDirectory.h"

#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/LockDirectoryFixture.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torva::test;
using torva::FileLock;
using torva::LockMode;

namespace {

using Handle = std::unique_ptr<file_lock, decltype(&file_lock_free)>;

class LockDirectorySandboxTest : public LockDirectoryFixture {
protected:
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

TEST_F(LockDirectorySandboxTest, AFileOfAnotherUserIsRefusedEvenWhileTheyHoldItsLock) {
    makeDirectory(0700); // given to us, with what they had in it
    writeFile(lockFile, "");
    ASSERT_EQ(::chown(lockFile.c_str(), stranger, stranger), 0);
    const int theirs = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(theirs, LOCK_EX), 0);
    for (const LockMode mode : {LockMode::fail, LockMode::wait}) {
        const Outcome outcome = inChild([&] {
            const auto before = openDescriptors();
            ::alarm(60); // in place of waiting for ever
            const bool refused = thrownFor(mode) == "lock() failed: Operation not permitted";
            return refused && openDescriptors() == before ? 0 : 1;
        });
        EXPECT_EQ(outcome.exited, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "Lock file \"" + lockFile +
                                   "\" belongs to user 4711, not to user 0.\n"
                                   "System error 1: Operation not permitted\n"
                                   "Unable to open file \"" +
                                   lockFile +
                                   "\": Operation not permitted.\n"
                                   "System error 1: Operation not permitted\n");
    }
    ::close(theirs);
}

TEST_F(LockDirectorySandboxTest, ADirectoryThatCannotBeLookedAtIsRefused) {
    makeDirectory(0700);
    const Outcome outcome = inChild([] {
        const auto before = openDescriptors();
        if (!failFstat(EIO)) {
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
