// The lock directory at its fixed path.
#include "torva/util/FileLock.h"

#include "torva/libc/Child.h"
#include "torva/libc/OtherProcess.h"
#include "torva/util/TempDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>

using torva::FileLock;
using torva::LockMode;
using torva::test::inChild;
using torva::test::OtherProcess;
using torva::test::Outcome;
using torva::test::readFile;
using torva::test::waitsForLock;
using torva::test::writeFile;

namespace {

const std::string heldName = "/var/spool/postfix/torva/virtual";
const std::string heldLockFile = "/var/lock/files/_var_spool_postfix_torva_virtual";

class FileLockSandboxTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("mkdir -p /var/lock/. && rm -rf /var/lock/files"), 0);
        ::umask(022);
    }

    static bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
};

std::string thrownByLock(LockMode mode) {
    try {
        const FileLock lock(heldName, mode);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

} // namespace

TEST_F(FileLockSandboxTest, TheLockFileIsThatOfTheNameWithUnderscoresForSlashes) {
    ASSERT_EQ(::mkdir("/var/lock/files", 0700), 0);
    file_lock* handle = file_lock_try(heldName.c_str(), 1);
    EXPECT_GT(handle->fd, 2);
    EXPECT_EQ(handle->path, heldLockFile);
    file_lock_free(handle);
    EXPECT_TRUE(exists(heldLockFile)) << "lock files are never removed";
    handle = file_lock_wait("no-slash", 1);
    EXPECT_GT(handle->fd, 2);
    EXPECT_STREQ(handle->path, "/var/lock/files/no-slash");
    file_lock_free(handle);
}

TEST_F(FileLockSandboxTest, TheLockedFileItselfIsNotTouched) {
    const std::string file = "/var/tmp/table";
    writeFile(file, "text");
    { const FileLock lock(file, LockMode::fail); }
    EXPECT_EQ(readFile(file), "text");
    EXPECT_TRUE(exists("/var/lock/files/_var_tmp_table"));
}

TEST_F(FileLockSandboxTest, TheThrowingWrapperMakesTheDirectoryAndThePlainFunctionsDoNot) {
    const Outcome outcome = inChild([] {
        file_lock* handle = file_lock_try("x", 1);
        const bool failed = handle->fd < 0 && errno == ENOENT;
        file_lock_free(handle);
        return failed ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "Unable to open file \"/var/lock/files/x\": No such file or directory.\n"
                           "System error 2: No such file or directory\n");
    EXPECT_FALSE(exists("/var/lock/files"));
    { const FileLock lock(heldName, LockMode::fail); }
    struct stat status;
    ASSERT_EQ(::stat("/var/lock/files", &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
    ASSERT_EQ(::stat(heldLockFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(FileLockSandboxTest, WithTheLockDirectoryOffTheDirectoryIsNotMade) {
    file_lock_free(torva::lock("/var/tmp/own", false, LockMode::fail));
    EXPECT_FALSE(exists("/var/lock/files"));
    EXPECT_TRUE(exists("/var/tmp/own"));
}

TEST_F(FileLockSandboxTest, ADirectoryThatCannotBeMadeShowsWhenItIsOpened) {
    writeFile("/var/lock/files", "");
    const Outcome outcome = inChild(
        [] { return thrownByLock(LockMode::wait) == "lock() failed: Not a directory" ? 0 : 1; });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "Unable to open file \"" + heldLockFile +
                               "\": Not a directory.\nSystem error 20: Not a directory\n");
}

TEST_F(FileLockSandboxTest, ALockLivesAsLongAsItsObject) {
    {
        const FileLock lock(heldName, LockMode::wait);
        EXPECT_EQ(thrownByLock(LockMode::fail),
                  "lock(" + heldName + ") failed: file is already locked");
        const FileLock other("/var/spool/postfix/torva/domains", LockMode::fail);
    }
    EXPECT_EQ(thrownByLock(LockMode::fail), "");
}

TEST_F(FileLockSandboxTest, TheWaitingModeWaitsForAnotherProcess) {
    OtherProcess holder([] {
        torva::lock(heldName, true, LockMode::fail);
        return 0;
    });
    ASSERT_EQ(holder.result(), 0);
    const OtherProcess waiter([] {
        const FileLock lock(heldName, LockMode::wait);
        return 0;
    });
    ASSERT_TRUE(waitsForLock(waiter.pid()));
    holder.end();
    EXPECT_EQ(waiter.result(), 0);
}
