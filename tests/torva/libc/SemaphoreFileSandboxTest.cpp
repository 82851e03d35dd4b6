// The file of the panel's semaphores, at its fixed path, and its directories.
#include "torva/libc/semaphore.h"

#include "torva/libc/Child.h"
#include "torva/libc/SemaphoreFixture.h"
#include "torva/libc/SyscallFault.h"
#include "torva/libc/semaphore_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

using torva::test::failSyscall;
using torva::test::inChild;
using torva::test::modeOf;
using torva::test::noFilters;
using torva::test::openDescriptors;
using torva::test::Outcome;
using torva::test::semaphorePath;

namespace {

const char directory[] = "/usr/local/kra";

#ifdef SYS_mkdir
const long makeDirectoryCall = SYS_mkdir;
#else
const long makeDirectoryCall = SYS_mkdirat;
#endif

class SemaphoreFileSandboxTest : public torva::test::SemaphoreFixture {};

} // namespace

TEST_F(SemaphoreFileSandboxTest, TheFileAndItsDirectoriesAreMadeWhenMissing) {
    const Outcome outcome = inChild([] {
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40755");
    EXPECT_EQ(modeOf("/usr/local/kra"), "40755");
}

TEST_F(SemaphoreFileSandboxTest, APresentFileStaysAsItIs) {
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

TEST_F(SemaphoreFileSandboxTest, TheProductRootOfThePanelConfigurationIsUsed) {
    ASSERT_EQ(std::system("mkdir /etc/kra && echo PRODUCT_ROOT_D /usr/local/kra/else/where > "
                          "/etc/kra/kra.conf"),
              0);
    const Outcome outcome = inChild([] { return sem_lock(1); });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf("/usr/local/kra/else/where/var/utilities.sem"), "100600");
    EXPECT_EQ(modeOf(semaphorePath), "missing");
}

TEST_F(SemaphoreFileSandboxTest, AFileThatCannotBeOpenedIsFatal) {
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

TEST_F(SemaphoreFileSandboxTest, WhatOthersCouldHavePutThereIsFatalAndNamed) {
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

TEST_F(SemaphoreFileSandboxTest, WhatCannotBeLookedAtIsFatal) {
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

TEST_F(SemaphoreFileSandboxTest, DirectoriesMayBeLinks) {
    ASSERT_EQ(std::system("mkdir -p /usr/local/kra/root /usr/local/kra/elsewhere /etc/kra && "
                          "ln -s ../elsewhere /usr/local/kra/root/var && "
                          "ln -s root /usr/local/kra/link && "
                          "echo PRODUCT_ROOT_D /usr/local/kra/link > /etc/kra/kra.conf"),
              0);
    const Outcome outcome = inChild([] { return sem_lock(1); });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf("/usr/local/kra/elsewhere/utilities.sem"), "100600");
}

TEST_F(SemaphoreFileSandboxTest, OnlyTheFileStaysOpenAndNothingDoesAfterARefusal) {
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

TEST_F(SemaphoreFileSandboxTest, WithoutUmaskFileAndDirectoriesHaveTheirModesNevertheless) {
    const Outcome outcome = inChild([] {
        ::umask(0);
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40755");
}

TEST_F(SemaphoreFileSandboxTest, TheUmaskTakesBitsFromTheModesOfDirectories) {
    const Outcome outcome = inChild([] {
        ::umask(077);
        init_sem();
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0) << outcome.err;
    EXPECT_EQ(modeOf(semaphorePath), "100600");
    EXPECT_EQ(modeOf("/usr/local/kra/var"), "40700");
}

TEST_F(SemaphoreFileSandboxTest, ADirectoryThatCannotBeMadeIsFatalWithItsOwnReason) {
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

TEST_F(SemaphoreFileSandboxTest, APathThatDoesNotFitIsFatalAndNoOtherFileIsMade) {
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
