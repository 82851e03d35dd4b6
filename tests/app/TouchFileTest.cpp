#include "app/TouchFile.h"

#include "torva/util/TempDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using torva::app::touchFile;

namespace {

bool equal(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

class TouchFileTest : public testing::Test {
protected:
    ~TouchFileTest() override { ::umask(mask_); }

    std::string path() const { return directory_ / "main.cf"; }

    struct stat status() const {
        struct stat found = {};
        EXPECT_EQ(::stat(path().c_str(), &found), 0);
        return found;
    }

    const torva::test::TempDirectory directory_;
    const mode_t mask_ = ::umask(0);
};

} // namespace

TEST_F(TouchFileTest, AMissingFileIsMadeEmptyWithMode0644) {
    touchFile(path());
    EXPECT_EQ(status().st_mode, S_IFREG | 0644U);
    EXPECT_EQ(status().st_size, 0);
}

TEST_F(TouchFileTest, APresentFileKeepsContentsModeAndBothTimes) {
    torva::test::writeFile(path(), "relayhost =\n");
    ASSERT_EQ(::chmod(path().c_str(), 0640), 0);
    // The access is older than the change: any reading would move its time, see mount(8).
    const timespec times[2] = {{1000000000, 5}, {1000000001, 6}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path().c_str(), times, 0), 0);
    const struct stat before = status();

    touchFile(path());

    const struct stat after = status();
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, S_IFREG | 0640U);
    EXPECT_TRUE(equal(after.st_atim, before.st_atim));
    EXPECT_TRUE(equal(after.st_mtim, before.st_mtim));
    EXPECT_TRUE(equal(after.st_ctim, before.st_ctim));
    EXPECT_EQ(torva::test::readFile(path()), "relayhost =\n");
}

TEST_F(TouchFileTest, AFailureIsIgnored) {
    touchFile(directory_ / "missing/main.cf");
    touchFile(directory_.path());
    EXPECT_EQ(directory_.names(), std::set<std::string>());
}

TEST_F(TouchFileTest, NoDescriptorIsLeft) {
    const int before = ::dup(STDIN_FILENO);
    ::close(before);
    touchFile(path());
    const int after = ::dup(STDIN_FILENO);
    ::close(after);
    EXPECT_EQ(after, before);
}

TEST_F(TouchFileTest, AFifoWithoutAReaderIsNotWaitedFor) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0644), 0);
    touchFile(path());
    EXPECT_EQ(status().st_mode, S_IFIFO | 0644U);
}

TEST_F(TouchFileTest, ATerminalDoesNotBecomeTheControllingOne) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master == -1 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        GTEST_SKIP() << "no pseudo-terminals here";
    }
    const std::string terminal = ::ptsname(master);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setsid();
        touchFile(terminal);
        ::_exit(::open("/dev/tty", O_RDWR | O_CLOEXEC) == -1 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    ::close(master);
    EXPECT_EQ(status, 0);
}
