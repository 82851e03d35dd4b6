// The panel's semaphores on their file at its fixed path.
#include "torva/libc/semaphore.h"

#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/libc/SyscallFault.h"
#include "torva/libc/semaphore_file.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::OtherProcess;
using torva::test::Outcome;
using torva::test::waitsForLock;

namespace {

const char directory[] = "/usr/local/kra";
const char semaphorePath[] = "/usr/local/kra/var/utilities.sem";

#ifdef SYS_mkdir
const long makeDirectoryCall = SYS_mkdir;
#else
const long makeDirectoryCall = SYS_mkdirat;
#endif

class SemaphoreSandboxTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("rm -rf /usr/local/kra /etc/kra"), 0);
        ::umask(022);
    }
    void TearDown() override { ASSERT_EQ(std::system("rm -rf /usr/local/kra /etc/kra"), 0); }
};

/// Permission bits and kind of a file, in octal; "missing" for none.
std::string modeOf(const char* file) {
    struct stat status;
    if (::stat(file, &status) != 0) {
        return "missing";
    }
    std::ostringstream text;
    text << std::oct << status.st_mode;
    return text.str();
}

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

TEST_F(SemaphoreSandboxTest, TheFileAndItsDirectoriesAreMadeWhenMissing) {
    const Outcome outcome = inChild([] {
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40755");
    EXPECT_EQ(modeOf("/usr/local/kra"), "40755");
}

TEST_F(SemaphoreSandboxTest, APresentFileStaysAsItIs) {
    ASSERT_EQ(std::system("mkdir -p /usr/local/kra/var && echo data > /usr/local/kra/var/"
                          "utilities.sem && chmod 640 /usr/local/kra/var/utilities.sem"),
              0);
    const Outcome outcome = inChild([] { return sem_lock(3) + sem_unlock(3); });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100640");
    std::string text;
    std::ifstream(semaphorePath) >> text;
    EXPECT_EQ(text, "data");
}

TEST_F(SemaphoreSandboxTest, TheProductRootOfThePanelConfigurationIsUsed) {
    ASSERT_EQ(std::system("mkdir /etc/kra && echo PRODUCT_ROOT_D /usr/local/kra/else/where > "
                          "/etc/kra/kra.conf"),
              0);
    const Outcome outcome = inChild([] { return sem_lock(1); });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf("/usr/local/kra/else/where/var/utilities.sem"), "100600");
    EXPECT_EQ(modeOf(semaphorePath), "missing");
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
    EXPECT_EQ(modeOf(directory), "missing") << "nothing is opened for such a number";
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

TEST_F(SemaphoreSandboxTest, AFileThatCannotBeOpenedIsFatal) {
    const struct {
        const char* what;
        const char* command;
        const char* reason;
        int error;
    } cases[] = {
        {"directory in its place", "mkdir -p /usr/local/kra/var/utilities.sem", "Is a directory",
         EISDIR},
        {"file on the way", "touch /usr/local/kra", "Not a directory", ENOTDIR},
        {"dangling link on the way", "mkdir /usr/local/kra && ln -s none /usr/local/kra/var",
         "No such file or directory", ENOENT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(std::system("rm -rf /usr/local/kra"), 0);
        ASSERT_EQ(std::system(c.command), 0);
        const Outcome outcome = inChild([] {
            sem_lock(1);
            return 7;
        });
        const std::string text = std::string("failed to open semaphore file ") + semaphorePath +
                                 ": " + c.reason + "\nSystem error " + std::to_string(c.error) +
                                 ": " + c.reason + "\n";
        EXPECT_EQ(outcome.exited, 1);
        EXPECT_EQ(outcome.err, text);
        EXPECT_EQ(outcome.out, text);
    }
}

TEST_F(SemaphoreSandboxTest, WhatOthersCouldHavePutThereIsFatalAndNamed) {
    const std::string fatal = std::string("failed to open semaphore file ") + semaphorePath + ": ";
    const std::string owner = "belongs to user 4711, not to root or to this program's user.";
    const struct {
        const char* command;
        std::string report;
        int error;
    } cases[] = {
        {"chown 4711 var", "\"/usr/local/kra/var\" " + owner, EPERM},
        {"chown 4711 .", "\"/usr/local/kra\" " + owner, EPERM},
        {"touch var/utilities.sem && chown 4711 var/utilities.sem",
         std::string("\"") + semaphorePath + "\" " + owner, EPERM},
        {"chmod 1777 var",
         "\"/usr/local/kra/var\" is writable by its group or by others (mode 1777).", EPERM},
        {"chmod 0775 .", "\"/usr/local/kra\" is writable by its group or by others (mode 0775).",
         EPERM},
        {"touch var/utilities.sem && chmod 606 var/utilities.sem",
         std::string("\"") + semaphorePath +
             "\" is writable by its group or by others (mode 0606).",
         EPERM},
        {"ln -s /usr/local/kra/target var/utilities.sem", "", ELOOP},
        {"touch target && ln -s /usr/local/kra/target var/utilities.sem", "", ELOOP},
        {"mkfifo var/utilities.sem", "", ENXIO},
        {"mkfifo var/utilities.sem && exec 3<>var/utilities.sem && (sleep 600 & echo $! >pid)",
         std::string("\"") + semaphorePath + "\" is no regular file.", EPERM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        ASSERT_EQ(std::system("rm -rf /usr/local/kra && mkdir -p /usr/local/kra/var"), 0);
        ASSERT_EQ(std::system(("cd /usr/local/kra && " + std::string(c.command)).c_str()), 0);
        const Outcome outcome = inChild([] {
            sem_lock(1);
            return 7;
        });
        const std::string reason = std::strerror(c.error);
        const std::string end = "\nSystem error " + std::to_string(c.error) + ": " + reason + "\n";
        EXPECT_EQ(outcome.exited, 1);
        EXPECT_EQ(outcome.err, (c.report.empty() ? "" : c.report + end) + fatal + reason + end);
        EXPECT_EQ(std::system("cd /usr/local/kra && if [ -e pid ]; then kill $(cat pid); fi"), 0);
        EXPECT_TRUE(modeOf("/usr/local/kra/target") == "missing" ||
                    std::string(c.command).find("touch target") == 0);
    }
}

TEST_F(SemaphoreSandboxTest, WhatCannotBeLookedAtIsFatal) {
    const Outcome outcome = inChild([] {
        if (!torva::test::failFstat(EIO)) {
            return static_cast<int>(noFilters);
        }
        init_sem();
        return 7;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 1);
    EXPECT_NE(outcome.err.find("Input/output error"), std::string::npos) << outcome.err;
}

TEST_F(SemaphoreSandboxTest, DirectoriesMayBeLinks) {
    ASSERT_EQ(std::system("mkdir -p /usr/local/kra/root /usr/local/kra/elsewhere /etc/kra && "
                          "ln -s ../elsewhere /usr/local/kra/root/var && "
                          "ln -s root /usr/local/kra/link && "
                          "echo PRODUCT_ROOT_D /usr/local/kra/link > /etc/kra/kra.conf"),
              0);
    const Outcome outcome = inChild([] { return sem_lock(1); });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf("/usr/local/kra/elsewhere/utilities.sem"), "100600");
}

TEST_F(SemaphoreSandboxTest, OnlyTheFileStaysOpenAndNothingDoesAfterARefusal) {
    const Outcome outcome = inChild([] {
        const auto before = openDescriptors();
        if (open_semaphore_file(semaphorePath) == -1 ||
            openDescriptors().size() != before.size() + 1) {
            return 1;
        }
        const auto opened = openDescriptors();
        for (const char* command : {"chmod 666 /usr/local/kra/var/utilities.sem",
                                    "chmod 777 /usr/local/kra/var", "chmod 777 /usr/local/kra"}) {
            if (std::system(command) != 0 || open_semaphore_file(semaphorePath) != -1) {
                return 2;
            }
        }
        return openDescriptors() == opened ? 0 : 3;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST_F(SemaphoreSandboxTest, WithoutUmaskFileAndDirectoriesHaveTheirModesNevertheless) {
    const Outcome outcome = inChild([] {
        ::umask(0);
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40755");
}

TEST_F(SemaphoreSandboxTest, TheUmaskTakesBitsFromTheModesOfDirectories) {
    const Outcome outcome = inChild([] {
        ::umask(077);
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40700");
}

TEST_F(SemaphoreSandboxTest, ADirectoryThatCannotBeMadeIsFatalWithItsOwnReason) {
    const Outcome outcome = inChild([] {
        if (!failSyscall(makeDirectoryCall, EROFS)) {
            return static_cast<int>(noFilters);
        }
        sem_lock(1);
        return 7;
    });
    if (outcome.exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    EXPECT_EQ(outcome.exited, 1);
    EXPECT_EQ(outcome.err, std::string("failed to open semaphore file ") + semaphorePath +
                               ": Read-only file system\nSystem error 30: Read-only file system\n");
}

TEST_F(SemaphoreSandboxTest, APathThatDoesNotFitIsFatalAndNoOtherFileIsMade) {
    ASSERT_EQ(std::system("mkdir /etc/kra"), 0);
    const std::string root = "/usr/local/kra" + std::string(4096, '/');
    std::ofstream("/etc/kra/kra.conf") << "PRODUCT_ROOT_D " << root << "\n";
    const Outcome outcome = inChild([] {
        sem_lock(1);
        return 7;
    });
    EXPECT_EQ(outcome.exited, 1);
    EXPECT_EQ(outcome.err, "failed to open semaphore file " + root.substr(0, 4095) +
                               ": File name too long\nSystem error 36: File name too long\n");
    EXPECT_EQ(modeOf(directory), "missing");
}
