#include "torva/util/FileLock.h"

#include "support/AllocationFaults.h"
#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/libc/SyscallFault.h"
#include "torva/util/SystemError.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <typeinfo>

using torva::ExSystemError;
using torva::lock;
using torva::LockMode;
using torva::SystemError;
using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::OtherProcess;
using torva::test::Outcome;
using torva::test::readFile;
using torva::test::TempDirectory;
using torva::test::waitsForLock;
using torva::test::writeFile;

namespace {

using Handle = std::unique_ptr<file_lock, decltype(&file_lock_free)>;

Handle tried(const std::string& name) {
    return {file_lock_try(name.c_str(), 0), &file_lock_free};
}

/// 0: taken, 1: held by somebody else, 2: an error; for a child.
int tryOnce(const std::string& name) {
    const Handle handle = tried(name);
    return handle->fd > 0 ? 0 : handle->fd == 0 ? 1 : 2;
}

struct Thrown {
    const std::type_info* type = nullptr;
    std::string text;
};

Thrown thrownByLock(const std::string& name, LockMode mode) {
    try {
        file_lock_free(lock(name, false, mode));
    } catch (const std::exception& error) {
        return {&typeid(error), error.what()};
    }
    return {};
}

} // namespace

TEST(FileLockTest, TheFileIsMadeAndItsDescriptorIsCloseOnExecAboveTheStandardStreams) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    for (const auto function : {file_lock_try, file_lock_wait}) {
        const Outcome outcome = inChild([&] {
            ::umask(022);
            ::close(0);
            ::close(1);
            ::close(2);
            const Handle handle(function(name.c_str(), 0), &file_lock_free);
            if (handle->fd <= 2 || ::fcntl(handle->fd, F_GETFD) != FD_CLOEXEC) {
                return 1;
            }
            struct stat status;
            ::stat(name.c_str(), &status);
            return handle->path == name && status.st_mode == (S_IFREG | 0644) ? 0 : 2;
        });
        EXPECT_EQ(outcome.exited, 0);
    }
}

TEST(FileLockTest, APresentFileIsEmptied) {
    const TempDirectory directory;
    writeFile(directory / "table", "text");
    EXPECT_GT(tried(directory / "table")->fd, 0);
    EXPECT_EQ(readFile(directory / "table"), "");
}

TEST(FileLockTest, TheNonBlockingLockOfASecondProcessIsRefused) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    const OtherProcess holder([&] {
        lock(name, false, LockMode::fail);
        return 0;
    });
    ASSERT_EQ(holder.result(), 0);
    const auto before = openDescriptors();
    EXPECT_EQ(tryOnce(name), 1);
    const Thrown thrown = thrownByLock(name, LockMode::fail);
    ASSERT_NE(thrown.type, nullptr);
    EXPECT_EQ(thrown.text, "lock(" + name + ") failed: file is already locked");
    EXPECT_TRUE(*thrown.type == typeid(std::runtime_error)) << thrown.type->name();
    EXPECT_EQ(openDescriptors(), before);
}

TEST(FileLockTest, TwoLocksOfOneProcessExcludeEachOther) {
    const TempDirectory directory;
    const Handle first = tried(directory / "table");
    EXPECT_GT(first->fd, 0);
    const Handle second = tried(directory / "table");
    EXPECT_EQ(second->fd, 0);
    EXPECT_GT(tried(directory / "other")->fd, 0);
}

TEST(FileLockTest, ReleasingTheHandleReleasesTheLockAndLeavesTheFile) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    Handle handle = tried(name);
    EXPECT_EQ(inChild([&] { return tryOnce(name); }).exited, 1);
    errno = EXDEV;
    handle.reset();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(inChild([&] { return tryOnce(name); }).exited, 0);
    EXPECT_EQ(directory.names(), std::set<std::string>{"table"});
    file_lock_free(nullptr);
}

TEST(FileLockTest, TheEndOfAProcessReleasesItsLock) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    OtherProcess holder([&] {
        file_lock_try(name.c_str(), 0);
        return 0;
    });
    ASSERT_EQ(holder.result(), 0);
    EXPECT_EQ(tryOnce(name), 1);
    holder.end();
    EXPECT_EQ(tryOnce(name), 0);
}

TEST(FileLockTest, AProgramThatWasStartedMeanwhileDoesNotKeepTheLock) {
    const TempDirectory directory;
    Handle handle = tried(directory / "table");
    pid_t pid = -1;
    const char* arguments[] = {"sleep", "60", nullptr};
    ASSERT_EQ(
        ::posix_spawnp(&pid, "sleep", nullptr, nullptr, const_cast<char**>(arguments), environ), 0);
    handle.reset();
    EXPECT_EQ(tryOnce(directory / "table"), 0);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

TEST(FileLockTest, TheWaitingFormReturnsWhenTheLockIsFree) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    OtherProcess holder(
        [&] { return tryOnce(name) + (file_lock_try(name.c_str(), 0)->fd > 0 ? 0 : 1); });
    ASSERT_EQ(holder.result(), 0);
    const OtherProcess waiter([&] {
        lock(name, false, LockMode::wait);
        return 0;
    });
    ASSERT_TRUE(waitsForLock(waiter.pid()));
    EXPECT_FALSE(waiter.answered());
    holder.end();
    EXPECT_EQ(waiter.result(), 0);
    EXPECT_EQ(tryOnce(name), 1) << "the waiter has it";
}

TEST(FileLockTest, AnInterruptedWaitGoesOn) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    OtherProcess holder([&] { return file_lock_try(name.c_str(), 0)->fd > 0 ? 0 : 1; });
    ASSERT_EQ(holder.result(), 0);
    static int caught[2];
    ASSERT_EQ(::pipe2(caught, O_CLOEXEC), 0);
    const OtherProcess waiter([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {
            [[maybe_unused]] const ssize_t written = ::write(caught[1], "", 1);
        };
        ::sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
        return file_lock_wait(name.c_str(), 0)->fd > 0 ? 0 : 1;
    });
    ASSERT_TRUE(waitsForLock(waiter.pid()));
    ASSERT_EQ(::kill(waiter.pid(), SIGUSR1), 0);
    char byte = 0;
    ASSERT_EQ(::read(caught[0], &byte, 1), 1);
    ASSERT_TRUE(waitsForLock(waiter.pid())) << "waits again";
    EXPECT_FALSE(waiter.answered());
    holder.end();
    EXPECT_EQ(waiter.result(), 0);
    ::close(caught[0]);
    ::close(caught[1]);
}

TEST(FileLockTest, AMissingDirectoryIsReportedAndThrown) {
    const TempDirectory directory;
    const std::string name = directory / "missing/table";
    for (const LockMode mode : {LockMode::fail, LockMode::wait}) {
        const Outcome outcome = inChild([&] {
            const Thrown thrown = thrownByLock(name, mode);
            if (thrown.type == nullptr || !(*thrown.type == typeid(ExSystemError<2>))) {
                return 1;
            }
            return thrown.text == "lock() failed: No such file or directory" ? 0 : 2;
        });
        EXPECT_EQ(outcome.exited, 0);
        const std::string report = "Unable to open file \"" + name +
                                   "\": No such file or directory.\n"
                                   "System error 2: No such file or directory\n";
        EXPECT_EQ(outcome.err, report);
        EXPECT_EQ(outcome.out, report);
    }
    EXPECT_TRUE(directory.names().empty());
}

TEST(FileLockTest, AFileThatCannotBeOpenedLeavesANegativeDescriptorAndErrno) {
    const TempDirectory directory;
    const std::string& name = directory.path(); // a directory
    const Outcome outcome = inChild([&] {
        const Handle handle = tried(name);
        return handle->fd < 0 && handle->path == name && errno == EISDIR ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST(FileLockTest, ALinkIsNotFollowedWhetherItsTargetIsThereOrNot) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    const std::string victim = directory / "victim";
    ASSERT_EQ(::symlink(victim.c_str(), name.c_str()), 0);
    for (const char* text : {"", "text"}) {
        if (*text != '\0') {
            writeFile(victim, text);
        }
        for (const auto function : {file_lock_try, file_lock_wait}) {
            const Outcome outcome = inChild([&] {
                const Handle handle(function(name.c_str(), 0), &file_lock_free);
                return handle->fd == -1 && errno == ELOOP ? 0 : 1;
            });
            EXPECT_EQ(outcome.exited, 0);
            EXPECT_EQ(outcome.err, "Unable to open file \"" + name +
                                       "\": Too many levels of symbolic links.\n"
                                       "System error 40: Too many levels of symbolic links\n");
        }
        EXPECT_EQ(readFile(victim), text);
        EXPECT_EQ(::access(victim.c_str(), F_OK) == 0, *text != '\0');
    }
}

TEST(FileLockTest, WhatIsNoRegularFileIsRefusedAtOnce) {
    const TempDirectory directory;
    const std::string fifo = directory / "fifo";
    const std::string local = directory / "socket";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(local.size(), sizeof(address.sun_path));
    local.copy(address.sun_path, local.size());
    const int bound = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const struct {
        std::string path;
        int error;
    } cases[] = {{fifo, EPERM}, {local, ENXIO}, {"/dev/null", EPERM}};
    for (const auto& c : cases) {
        for (const auto function : {file_lock_try, file_lock_wait}) {
            const Outcome outcome = inChild([&] {
                const auto before = openDescriptors();
                const Handle handle(function(c.path.c_str(), 0), &file_lock_free);
                if (handle->fd != -1 || errno != c.error) {
                    return 1;
                }
                return openDescriptors() == before ? 0 : 2;
            });
            EXPECT_EQ(outcome.exited, 0) << c.path;
            EXPECT_EQ(outcome.err.find("Unable to open file \"" + c.path + "\": "), 0U)
                << outcome.err;
        }
    }
    ::close(bound);
}

TEST(FileLockTest, TheModeOfTheLockFileIs0644MinusTheUmask) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    const mode_t masks[] = {0, 077};
    for (const mode_t mask : masks) {
        const Outcome outcome = inChild([&] {
            ::umask(mask);
            const Handle handle = tried(name);
            struct stat status;
            const mode_t wanted = S_IFREG | (0644 & ~mask);
            return ::fstat(handle->fd, &status) == 0 && status.st_mode == wanted ? 0 : 1;
        });
        EXPECT_EQ(outcome.exited, 0) << mask;
        ASSERT_EQ(::unlink(name.c_str()), 0);
    }
}

TEST(FileLockTest, WithoutADescriptorAboveTheStandardStreamsTheFileCannotBeOpened) {
    const TempDirectory directory;
    const std::string name = directory / "table";
    const Outcome outcome = inChild([&] {
        ::close(0);
        const rlimit three = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &three);
        const Handle handle = tried(name);
        return handle->fd < 0 && ::fcntl(0, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "Unable to open file \"" + name +
                               "\": Invalid argument.\nSystem error 22: Invalid argument\n");
}

TEST(FileLockTest, AnyOtherFailureToLockIsAnErrorWithItsErrno) {
    const TempDirectory directory;
    const Outcome outcome = inChild([&] {
        const auto before = openDescriptors();
        if (!failSyscall(SYS_flock, ENOLCK)) {
            return static_cast<int>(noFilters);
        }
        {
            const Handle handle = tried(directory / "table");
            if (handle->fd != -1 || errno != ENOLCK) {
                return 1;
            }
        }
        const Thrown thrown = thrownByLock(directory / "table", LockMode::wait);
        if (thrown.type == nullptr || !(*thrown.type == typeid(SystemError)) ||
            thrown.text != "lock() failed: No locks available") {
            return 2;
        }
        return openDescriptors() == before ? 0 : 3;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "") << "only a failed opening is reported";
}

TEST(FileLockTest, LackOfMemoryGivesNoHandleAndOpensNothing) {
    if (TORVA_TEST_ASAN != 0) {
        GTEST_SKIP() << "the sanitizer's allocator does not keep to RLIMIT_AS";
    }
    const TempDirectory directory;
    const std::string name = directory / "table";
    const Outcome outcome = inChild([&] {
        torva::test::exhaustMemory();
        return file_lock_try(name.c_str(), 0) == nullptr && errno == ENOMEM ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_TRUE(directory.names().empty());
}

TEST(FileLockTest, ErrnoAndTheReasonAreKeptWhateverMemoryMakesOfThem) {
    if (!torva::test::allocation_faults_work) {
        GTEST_SKIP() << torva::test::no_allocation_faults;
    }
    const TempDirectory directory;
    file_lock* handle = file_lock_try((directory / "table").c_str(), 0);
    const torva::test::DisturbedErrno disturbed(EDOM);
    errno = EXDEV;
    file_lock_free(handle);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(thrownByLock(directory.path(), LockMode::fail).text, "lock() failed: Is a directory");
}

TEST(FileLockTest, TheReasonOfARefusedLockIsNotThatOfTheClosing) {
    const TempDirectory directory;
    const Handle held = tried(directory / "table");
    const Outcome outcome = inChild([&] {
        if (!failSyscall(SYS_close, EIO)) {
            return static_cast<int>(noFilters);
        }
        return tried(directory / "table")->fd == 0 && errno == EAGAIN ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
}
