// The standard streams of the program and its children when they were closed.
#include "app/EntryPoint.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using torva::app::makeWorldSane;

namespace {

/// Access mode of each standard stream, as it is after all three were closed; -1 for one
/// that is closed or that children do not get.
void closeAndRepair(int modes[3]) {
    for (int fd = 0; fd < 3; ++fd) {
        ::close(fd);
    }
    makeWorldSane();
    for (int fd = 0; fd < 3; ++fd) {
        modes[fd] = ::fcntl(fd, F_GETFD) == 0 ? ::fcntl(fd, F_GETFL) & O_ACCMODE : -1;
    }
}

/// Runs a check in a child, which closes its own streams: 0 is good.
template <class Check>
int runInAChild(Check check) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(check());
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(RepairedStreamsTest, InputCanBeReadAndOutputWrittenByChildrenToo) {
    EXPECT_EQ(runInAChild([] {
                  int modes[3];
                  closeAndRepair(modes);
                  return modes[0] == O_RDONLY && modes[1] == O_WRONLY && modes[2] == O_WRONLY ? 0
                                                                                              : 1;
              }),
              0);
}

TEST(RepairedStreamsTest, NothingElseIsOpened) {
    EXPECT_EQ(runInAChild([] {
                  const int next = ::dup(STDIN_FILENO);
                  ::close(next);
                  int modes[3];
                  closeAndRepair(modes);
                  return ::dup(STDIN_FILENO) == next ? 0 : 1;
              }),
              0);
}

TEST(RepairedStreamsTest, AFlagOfAnOpenStreamStays) {
    EXPECT_EQ(runInAChild([] {
                  ::fcntl(STDIN_FILENO, F_SETFD, FD_CLOEXEC);
                  makeWorldSane();
                  return ::fcntl(STDIN_FILENO, F_GETFD) == FD_CLOEXEC ? 0 : 1;
              }),
              0);
}
