// The lock of a table: held by the caller, from before the tool starts until after it
// has ended, and waited for.
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "support/LockHolder.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/FileLock.h"

#include <gmock/gmock.h>

#include <chrono>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

using namespace torva::mail::postfix;
using namespace torva::test;
using torva::FileLock;
using torva::LockMode;

namespace {

struct LockedOperation {
    const char* name;
    std::size_t tools; ///< how many postmaps it runs
    bool waits;        ///< for a lock that somebody else holds
    std::function<void()> run;
};

const std::vector<LockedOperation> lockedOperations = {
    {"create", 1, false,
     [] {
         createTable(table, {{"a", "1"}});
     }},
    {"put", 1, true,
     [] {
         putRecords(table, {{"a", "1"}});
     }},
    {"delete", 1, true, [] { deleteKeys(table, {"a"}); }},
    {"dump", 1, true, [] { dumpTable(table); }},
    {"rebuild", 1, true, [] { rebuildTable(table); }},
    {"rewrite", 2, true, [] { removeDomainFromTable(table, "d.net", false); }},
};

using TableLockTest = TablesTest;

TEST_F(TableLockTest, IsHeldByTheCallerThroughoutTheRunOfTheTool) {
    const std::string log = directory + "/locks.";
    createTable(table, {{"a", "1"}});
    for (const LockedOperation& operation : lockedOperations) {
        SCOPED_TRACE(operation.name);
        // As long as the tool runs: when it starts, and when it is about to end.
        const FakeTool fake(postmap, "n=$(ls " + directory + " | grep -c 'locks.')\n" +
                                         "cat /proc/locks > " + log + "$n\n" +
                                         "\"$REAL\" \"$@\" < \"$INPUT\"; status=$?\n" +
                                         "cat /proc/locks > " + log + "$((n + 1))\nexit $status");
        operation.run();
        for (std::size_t i = 0; i < 2 * operation.tools; ++i) {
            const std::string path = log + std::to_string(i);
            EXPECT_EQ(lockHolder(contentOf(path), source), std::to_string(::getpid())) << i;
            EXPECT_EQ(::unlink(path.c_str()), 0) << i;
        }
        EXPECT_EQ(lockHolder(contentOf("/proc/locks"), source), "none");
        EXPECT_NO_THROW(FileLock(source, LockMode::fail));
    }
}

TEST_F(TableLockTest, NeitherItsDescriptorNorAnotherOfOursReachesTheTool) {
    const std::string log = "/var/spool/postfix/descriptors";
    createTable(table, {{"a", "1"}});
    for (const LockedOperation& operation : lockedOperations) {
        SCOPED_TRACE(operation.name);
        const FakeTool fake(postmap, "readlink /proc/$$/fd/* >> " + log + "\n" + passThrough);
        operation.run();
        const std::string seen = contentOf(log);
        EXPECT_NE(seen, "");
        EXPECT_EQ(seen.find(directory), std::string::npos) << seen;
        EXPECT_EQ(seen.find("/var/lock"), std::string::npos) << seen;
        EXPECT_EQ(seen.find("/run/lock"), std::string::npos) << seen;
        ::unlink(log.c_str());
    }
}

TEST_F(TableLockTest, IsFreeAgainAfterAFailure) {
    createTable(table, {{"a", "1"}});
    const FakeTool fake(postmap, "echo 'postmap: fatal: x' >&2; exit 1");
    for (const LockedOperation& operation : lockedOperations) {
        EXPECT_ANY_THROW(operation.run()) << operation.name;
        EXPECT_NO_THROW(FileLock(source, LockMode::fail)) << operation.name;
    }
}

/// Whether a process waits for a file lock: "N: -> FLOCK  ADVISORY  WRITE PID ...".
bool waitsForLock(pid_t pid) {
    std::istringstream locks(contentOf("/proc/locks"));
    const std::string waiting = " " + std::to_string(pid) + " ";
    for (std::string line; std::getline(locks, line);) {
        if (line.find("-> FLOCK") != std::string::npos && line.find(waiting) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST_F(TableLockTest, IsWaitedForAndUntilThenNoToolRuns) {
    createTable(table, {{"a", "1"}});
    std::vector<LockedOperation> waiting = lockedOperations;
    waiting.push_back({"shield", 0, true, [] { shieldForChanges(table); }});
    for (const LockedOperation& operation : waiting) {
        if (!operation.waits) {
            continue;
        }
        SCOPED_TRACE(operation.name);
        const FakeTool recording(postmap, passThrough);
        // The child is forked before the lock is taken: it would inherit it.
        int start[2];
        ASSERT_EQ(::pipe2(start, O_CLOEXEC), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(start[1]);
            char byte;
            int status = ::read(start[0], &byte, 1) == 0 ? 0 : 1;
            try {
                operation.run();
            } catch (...) {
                status = 2;
            }
            ::_exit(status);
        }
        ::close(start[0]);
        {
            const FileLock held(source, LockMode::fail);
            ::close(start[1]);
            while (!waitsForLock(pid)) {
                ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "did not wait";
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            EXPECT_EQ(recording.calls().size(), 0U);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(recording.calls().size(), operation.tools);
    }
}

} // namespace
