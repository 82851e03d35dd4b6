// The panel's semaphores: taking, waiting, releasing. Their file is in
// SemaphoreFileSandboxTest.cpp.
#include "torva/libc/semaphore.h"

#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/libc/SemaphoreFixture.h"
#include "torva/libc/SyscallFault.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::modeOf;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::OtherProcess;
using torva::test::Outcome;
using torva::test::waitsForLock;

namespace {

class SemaphoreSandboxTest : public torva::test::SemaphoreFixture {};

} // namespace

TEST_F(SemaphoreSandboxTest, AHeldSemaphoreAnswersMinusOneAtOnceAndAnotherSucceeds) {
    const OtherProcess holder([] { return sem_lock(5); });
    ASSERT_EQ(holder.result(), 0);
    const Outcome outcome = inChild([] {
        if (sem_lock(5) != -1 || (errno != EACCES && errno != EAGAIN)) {
            return 1;
        }
        return sem_lock(6) == 0 && sem_lock(4) == 0 && sem_lock(0) == 0 && sem_unlock(0) == 0 ? 0
                                                                                              : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "");
}

TEST_F(SemaphoreSandboxTest, TheDescriptorIsOpenedOnceAboveTheStandardStreamsCloseOnExec) {
    const Outcome outcome = inChild([] {
        ::close(0);
        ::close(1);
        const auto before = openDescriptors();
        sem_lock(1);
        sem_lock(2);
        init_sem();
        auto added = openDescriptors();
        for (const int fd : before) {
            added.erase(fd);
        }
        if (added.size() != 1 || *added.begin() <= 2) {
            return 1;
        }
        if (::fcntl(*added.begin(), F_GETFD) != FD_CLOEXEC) {
            return 2;
        }
        return (::fcntl(*added.begin(), F_GETFL) & O_ACCMODE) == O_WRONLY ? 0 : 3;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
}

TEST_F(SemaphoreSandboxTest, ADescriptorThatNeedsNoMovingIsCloseOnExecToo) {
    const Outcome outcome = inChild([] {
        const auto before = openDescriptors();
        init_sem();
        for (const int fd : openDescriptors()) {
            if (before.count(fd) == 0) {
                return ::fcntl(fd, F_GETFD) == FD_CLOEXEC ? 0 : 1;
            }
        }
        return 2;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
}

TEST_F(SemaphoreSandboxTest, TakingOneTwiceDoesNotBlockAndOneReleaseGivesItBack) {
    const OtherProcess holder(
        [] { return sem_lock(5) + sem_lock(5) + sem_lock_wait(5) + sem_unlock(5); });
    ASSERT_EQ(holder.result(), 0);
    EXPECT_EQ(inChild([] { return sem_lock(5) == 0 ? 0 : 1; }).exited, 0);
}

TEST_F(SemaphoreSandboxTest, ReleasingOneLeavesTheOthersHeld) {
    const OtherProcess holder([] { return sem_lock(5) + sem_lock(6) + sem_unlock(5); });
    ASSERT_EQ(holder.result(), 0);
    EXPECT_EQ(inChild([] { return sem_lock(5) == 0 && sem_lock(6) == -1 ? 0 : 1; }).exited, 0);
}

TEST_F(SemaphoreSandboxTest, ReleasingWhatIsNotHeldIsNoError) {
    EXPECT_EQ(inChild([] { return sem_unlock(9); }).exited, 0);
}

TEST_F(SemaphoreSandboxTest, TheEndOfAProcessReleasesWhatItHeld) {
    OtherProcess holder([] { return sem_lock(5); });
    ASSERT_EQ(holder.result(), 0);
    EXPECT_EQ(inChild([] { return sem_lock(5) == -1 ? 0 : 1; }).exited, 0);
    holder.end();
    EXPECT_EQ(inChild([] { return sem_lock(5) == 0 ? 0 : 1; }).exited, 0);
}

TEST_F(SemaphoreSandboxTest, ClosingReleasesEverythingAndTheNextUseOpensAgain) {
    const OtherProcess holder([] {
        sem_lock(5);
        shutdown_sem();
        shutdown_sem();
        return sem_lock(6);
    });
    ASSERT_EQ(holder.result(), 0);
    EXPECT_EQ(inChild([] { return sem_lock(5) == 0 && sem_lock(6) == -1 ? 0 : 1; }).exited, 0);
}

TEST_F(SemaphoreSandboxTest, TheWaitingVariantReturnsWhenTheSemaphoreIsFree) {
    OtherProcess holder([] { return sem_lock(5); });
    ASSERT_EQ(holder.result(), 0);
    const OtherProcess waiter([] { return sem_lock_wait(5); });
    ASSERT_TRUE(waitsForLock(waiter.pid()));
    EXPECT_FALSE(waiter.answered());
    holder.end();
    EXPECT_EQ(waiter.result(), 0);
    EXPECT_EQ(inChild([] { return sem_lock(5) == -1 ? 0 : 1; }).exited, 0) << "the waiter has it";
}

TEST_F(SemaphoreSandboxTest, AnInterruptedWaitGoesOn) {
    OtherProcess holder([] { return sem_lock(5); });
    ASSERT_EQ(holder.result(), 0);
    static int caught[2];
    ASSERT_EQ(::pipe2(caught, O_CLOEXEC), 0);
    const OtherProcess waiter([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {
            [[maybe_unused]] const ssize_t written = ::write(caught[1], "", 1);
        };
        ::sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
        return sem_lock_wait(5);
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

TEST_F(SemaphoreSandboxTest, ANegativeNumberIsFatalForAllThree) {
    const struct {
        int (*operation)(long);
        const char* name;
    } cases[] = {{sem_lock, "sem_lock"}, {sem_lock_wait, "sem_lock"}, {sem_unlock, "sem_unlock"}};
    for (const auto& c : cases) {
        const Outcome outcome = inChild([&] {
            errno = ENOENT; // from something else
            c.operation(-3);
            return 7;
        });
        const std::string text =
            std::string(c.name) + "() failed for semnum -3: semnum must not be negative\n";
        EXPECT_EQ(outcome.exited, 1);
        EXPECT_EQ(outcome.err, text);
        EXPECT_EQ(outcome.out, text);
    }
    EXPECT_EQ(modeOf("/usr/local/kra"), "missing") << "nothing is opened for such a number";
}

TEST_F(SemaphoreSandboxTest, AnyOtherFailureToLockIsFatal) {
    for (const auto operation : {sem_lock, sem_lock_wait}) {
        const int command = operation == sem_lock ? F_SETLK : F_SETLKW;
        const Outcome outcome = inChild([&] {
            if (!failSyscall(SYS_fcntl, ENOLCK, 1, static_cast<std::uint32_t>(command))) {
                return static_cast<int>(noFilters);
            }
            operation(8);
            return 7;
        });
        if (outcome.exited == noFilters) {
            GTEST_SKIP() << "the kernel allows no system call filters";
        }
        const std::string text = "sem_lock() failed for semnum 8: No locks available\n"
                                 "System error 37: No locks available\n";
        EXPECT_EQ(outcome.exited, 1);
        EXPECT_EQ(outcome.err, text);
        EXPECT_EQ(outcome.out, text);
    }
}

TEST_F(SemaphoreSandboxTest, AHeldAnswerToTheWaitingVariantIsFatalToo) {
    const Outcome outcome = inChild([] {
        if (!failSyscall(SYS_fcntl, EAGAIN, 1, F_SETLKW)) {
            return static_cast<int>(noFilters);
        }
        sem_lock_wait(8);
        return 7;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 1) << "it returns only when the semaphore is taken";
}

TEST_F(SemaphoreSandboxTest, AFailureToReleaseIsReported) {
    const Outcome outcome = inChild([] {
        sem_lock(8);
        if (!failSyscall(SYS_fcntl, ENOLCK, 1, F_SETLK)) {
            return static_cast<int>(noFilters);
        }
        return sem_unlock(8) == -1 && errno == ENOLCK ? 0 : 1;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "sem_unlock() failed for semnum 8: No locks available\n"
                           "System error 37: No locks available\n");
}

TEST_F(SemaphoreSandboxTest, AFailureToCloseIsReported) {
    const Outcome outcome = inChild([] {
        sem_lock(8);
        if (!failSyscall(SYS_close, EIO)) {
            return static_cast<int>(noFilters);
        }
        shutdown_sem();
        shutdown_sem(); // counts as closed: no second report
        return 0;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 0);
    const std::string text = "shutdown_sem(): failed to close semaphore file: Input/output error\n"
                             "System error 5: Input/output error\n";
    EXPECT_EQ(outcome.err, text);
    EXPECT_EQ(outcome.out, text);
}
