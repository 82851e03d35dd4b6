// The writer among processes: one that waits for another's lock, and one that is
// killed.
#include "torva/postfix/mastercf/MasterCfWriter.h"

#include "Sandboxed.h"
#include "SystemCallLog.h"
#include "torva/util/FileLock.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace torva::mail::postfix::testing {
namespace {

const char* const oldText = "# the old file\n";

class MasterCfWriterProcessSandboxTest : public SandboxedTest {};

/// Runs the body in a child of its own, which ends with its result.
template <class Body>
pid_t inChild(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int status = 125;
        try {
            status = body();
        } catch (...) { // NOLINT(bugprone-empty-catch): the status shows it
        }
        ::_exit(status);
    }
    return pid;
}

int statusOf(pid_t pid) {
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

TEST_F(MasterCfWriterProcessSandboxTest, ProcessKilledBeforeTheRenameLeavesTheOldFile) {
    fill(path_, oldText);
    const pid_t pid = inChild([&] {
        SystemCallLog log;
        log.before("rename", [] { ::raise(SIGKILL); });
        writeTo(path_, {"a"});
        return 0;
    });
    ASSERT_GT(pid, 0);
    const int status = statusOf(pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(contentOfFile(path_), oldText);
    // The lock ended with the process.
    writeTo(path_, {"b"});
    EXPECT_EQ(contentOfFile(path_), "b\n");
}

/// Whether a process waits for a file lock: "N: -> FLOCK  ADVISORY  WRITE PID ...".
bool waitsForLock(pid_t pid) {
    std::istringstream locks(contentOfFile("/proc/locks"));
    const std::string holder = " " + std::to_string(pid) + " ";
    for (std::string line; std::getline(locks, line);) {
        if (line.find("-> FLOCK") != std::string::npos && line.find(holder) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST_F(MasterCfWriterProcessSandboxTest, WaitsWhileTheLockIsHeldElsewhere) {
    fill(path_, oldText);
    // The child is forked before the lock is taken: it would inherit it.
    int start[2];
    ASSERT_EQ(::pipe2(start, O_CLOEXEC), 0);
    const pid_t pid = inChild([&] {
        ::close(start[1]);
        char byte;
        const ssize_t ended = ::read(start[0], &byte, 1);
        writeTo(path_, {"a"});
        return static_cast<int>(ended);
    });
    ASSERT_GT(pid, 0);
    ::close(start[0]);
    {
        const FileLock held(path_, LockMode::fail);
        ::close(start[1]);
        while (!waitsForLock(pid)) {
            ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "did not wait";
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(contentOfFile(path_), oldText);
        EXPECT_EQ(entriesOf(directory_.path()), 1U);
    }
    EXPECT_EQ(statusOf(pid), 0);
    EXPECT_EQ(contentOfFile(path_), "a\n");
}

} // namespace
} // namespace torva::mail::postfix::testing
