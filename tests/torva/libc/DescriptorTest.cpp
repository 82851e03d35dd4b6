#include "torva/libc/descriptor.h"

#include "torva/libc/Child.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

using torva::test::inChild;

TEST(DescriptorTest, OneAboveTheStandardStreamsStaysAsItIs) {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GT(fd, 2);
    EXPECT_EQ(fd_above_standard(fd), fd);
    ::close(fd);
}

TEST(DescriptorTest, TheFailureOfAnOpenPassesThrough) {
    errno = ENOENT;
    EXPECT_EQ(fd_above_standard(-1), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(DescriptorTest, AStandardNumberIsGivenUpForAHigherOneCloseOnExec) {
    for (const int low : {0, 1, 2}) {
        const auto outcome = inChild([low] {
            ::close(low);
            if (::open("/dev/null", O_RDONLY | O_CLOEXEC) != low) {
                return 1;
            }
            const int moved = fd_above_standard(low);
            if (moved <= 2 || ::fcntl(moved, F_GETFD) != FD_CLOEXEC) {
                return 2;
            }
            return ::fcntl(low, F_GETFD) == -1 ? 0 : 3;
        });
        EXPECT_EQ(outcome.exited, 0) << "descriptor " << low;
    }
}

TEST(DescriptorTest, WithoutAFreeNumberTheDescriptorIsClosedAndErrnoTellsWhy) {
    const auto outcome = inChild([] {
        ::close(0);
        ::open("/dev/null", O_RDONLY);
        const rlimit three = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &three);
        if (fd_above_standard(0) != -1) {
            return 1;
        }
        // A lower limit than the wanted number is EINVAL.
        return errno == EINVAL && ::fcntl(0, F_GETFD) == -1 ? 0 : 2;
    });
    EXPECT_EQ(outcome.exited, 0);
}
