// An index whose lock another account holds, or takes as soon as it can: whatever makes the
// index anew ends nevertheless, and gives the index the mode and owner that it had.
#include "CallHooks.h"
#include "ShieldedIndexFixture.h"
#include "support/IndexHolder.h"
#include "torva/postfix/tables/ShieldedIndex.h"
#include "torva/util/PostfixError.h"

#include <chrono>
#include <memory>
#include <thread>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

using Means = IndexHolder::Means;

// ---- a lock that is held

TEST_F(ShieldedIndexTest, LockOfAnAccountThatCanOnlyReadTheIndexStopsNothingThatMakesItAnew) {
    for (const Rebuilding& making : makings) {
        SCOPED_TRACE(making.name);
        layOut();
        const bool lists = std::string(making.name) == "rewrite";
        EXPECT_TRUE(ends([&] {
            std::unique_ptr<IndexHolder> holder;
            const auto hold = [&holder] { holder = std::make_unique<IndexHolder>(index_); };
            if (!lists) {
                hold();
            }
            // A rewrite lists the table first, which waits.
            const CallHook hook([&](const std::string& call, const std::string&) {
                if (lists && call == "rename" && !holder) {
                    hold();
                }
                return 0;
            });
            making.run();
        }));
        EXPECT_THAT(dumpTable(table), ElementsAre(Pair("new", "2")));
        expectModeAndOwner();
    }
}

TEST_F(ShieldedIndexTest, AccountThatTakesTheLockOfEachNewFileAtOnceStopsNothing) {
    for (const std::string type : {"hash", "btree"}) {
        SCOPED_TRACE(type);
        const std::string each = type + ":" + source;
        removeAll();
        bool hasTaken = false;
        EXPECT_TRUE(ends([&] {
            IndexHolder watcher(directory, Means::watching);
            for (int i = 0; i < 10; ++i) {
                createTable(each, {{"a", std::to_string(i)}}); // the first time without an index
                rebuildTable(each);
                const ShieldedIndex shield = shieldForChanges(each);
                putRecords(each, {{"b", std::to_string(i)}});
            }
            hasTaken = watcher.end();
            if (!hasTaken) {
                throw std::runtime_error("the attack itself does not work");
            }
        }));
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | 0644U);
        EXPECT_THAT(dumpTable(each), UnorderedElementsAre(Pair("a", "9"), Pair("b", "9")));
        EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    }
}

/// Whether the process sleeps for a while, as one does that polls.
bool isPolling(pid_t pid) {
    return contentOf("/proc/" + std::to_string(pid) + "/wchan").find("nanosleep") !=
           std::string::npos;
}

TEST_F(ShieldedIndexTest, WriterIsWaitedForBeforeTheIndexIsReplaced) {
    const std::vector<std::function<void()>> actions = {
        makings[1].run,
        [] { shieldForChanges(table); },
    };
    for (const auto& action : actions) {
        layOut();
        const FakeTool recording(postmap, passThrough);
        IndexHolder writer(index_, Means::writing, 0);
        const ino_t before = statusOf(index_).st_ino;
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(exitStatusOf(action));
        }
        while (!isPolling(pid)) {
            ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "did not wait";
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(recording.calls().size(), 0U);
        EXPECT_EQ(statusOf(index_).st_ino, before);
        writer.end();
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
        EXPECT_NE(statusOf(index_).st_ino, before);
        expectModeAndOwner();
    }
}

TEST_F(ShieldedIndexTest, WriterOfAnotherIndexOfTypeCdbIsWaitedForToo) {
    const std::string scratch = source + ".cdb.tmp";
    writeFile(source, "a 1\n");
    writeFile(scratch, "half of an index");
    const FakeTool fake(postmap, "mv " + scratch + " " + source + ".cdb");
    IndexHolder writer(scratch, Means::writing, 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(exitStatusOf([] { rebuildTable("cdb:" + source); }));
    }
    while (!isPolling(pid)) {
        ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "did not wait";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(contentOf(scratch), "half of an index");
    writer.end();
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.cdb"));
}

TEST_F(ShieldedIndexTest, WriterWithoutEndIsLeftBehindOrNamedAfterTenSeconds) {
    const std::string other = directory + "/other";
    createTable("hash:" + other, {});
    layOut();
    createTable("hash:" + other, {});
    IndexHolder writer(index_, Means::writing, 0);
    IndexHolder otherWriter(other + ".db", Means::writing, 0);
    const pid_t pid = ::fork(); // both at the same time
    if (pid == 0) {
        ::_exit(exitStatusOf(makings[0].run));
    }
    EXPECT_EQ(messageOf<PostfixDatabaseError>([&] { shieldForChanges("hash:" + other); }),
              other + ".db is locked by another process (fuser " + other + ".db)");
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    writer.end();
    otherWriter.end();
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("new", "2")));
    EXPECT_EQ(statusOf(other + ".db").st_mode, S_IFREG | 0644U);
    EXPECT_THAT(namesIn(directory), ElementsAre("other", "other.db", "virtual", "virtual.db"));
}

// ---- while the tool runs

TEST_F(ShieldedIndexTest, NobodyElseMayOpenTheIndexWhileTheToolRuns) {
    for (const std::string before : {"an index", "no index", "an empty one", "another account's"}) {
        SCOPED_TRACE(before);
        layOut();
        if (before == "no index") {
            ::unlink(index_.c_str());
        } else if (before == "an empty one") {
            ASSERT_EQ(::truncate(index_.c_str(), 0), 0);
        } else if (before == "another account's") {
            ASSERT_EQ(::chown(index_.c_str(), 4711, 65534), 0);
        }
        const auto size = before.find("an") == 0 && before != "an empty one"
                              ? statusOf(index_).st_size
                              : 1; // the tool removes an empty one, and makes it anew
        {
            const FakeTool fake(postmap, telling(index_));
            rebuildTable(table);
        }
        EXPECT_EQ(told(), "1600 0 " + std::to_string(size) + "\n");
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | (before == "no index" ? 0644U : 0604U));
        EXPECT_EQ(statusOf(index_).st_uid, before == "another account's" ? 4711U : 0U);
        EXPECT_THAT(dumpTable(table),
                    UnorderedElementsAre(Pair("user@d.net", "1"), Pair("new", "2")));
        EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    }
}

TEST_F(ShieldedIndexTest, FileThatTheToolRenamesOverAnIndexOfTypeCdbIsShielded) {
    const std::string scratch = source + ".cdb.tmp";
    writeFile(source, "a 1\n");
    writeFile(scratch, "from a run that was killed");
    const IndexHolder holder(scratch);
    const ino_t before = statusOf(scratch).st_ino;
    const FakeTool fake(postmap, "stat -c '%a %u %s' " + scratch + " > " + told_ +
                                     "; printf index > " + scratch + "; mv " + scratch + " " +
                                     source + ".cdb");
    rebuildTable("cdb:" + source);
    EXPECT_EQ(told(), "1600 0 0\n");
    EXPECT_NE(statusOf(source + ".cdb").st_ino, before);
    EXPECT_EQ(statusOf(source + ".cdb").st_mode, S_IFREG | 0644U);
    EXPECT_EQ(contentOf(source + ".cdb"), "index");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.cdb"));
}

TEST_F(ShieldedIndexTest, IndexOfTypeLmdbIsShieldedAlsoWhereItStandsInForAnotherType) {
    const std::string lmdb = source + ".lmdb";
    for (const std::string type : {"lmdb", "hash"}) {
        removeAll();
        writeFile(source, "a 1\n");
        for (const bool isNew : {true, false}) {
            SCOPED_TRACE(type + (isNew ? " new" : ""));
            if (isNew && type == "hash") {
                // Only Postfix knows whether it will make one.
                writeFile(lmdb, "index");
                continue;
            }
            const FakeTool fake(postmap, "stat -c '%a %u %s' " + lmdb + " > " + told_ +
                                             "; printf index > " + lmdb);
            rebuildTable(type + ":" + source);
            EXPECT_EQ(told(), isNew ? "1600 0 0\n" : "1600 0 5\n");
            EXPECT_EQ(contentOf(lmdb), "index");
            EXPECT_EQ(statusOf(lmdb).st_mode, S_IFREG | 0644U);
            EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.lmdb"));
        }
    }
}

TEST_F(ShieldedIndexTest, ToolThatWorksAsTheOwnerOfTheSourceMayOpenTheIndex) {
    for (const bool isNew : {false, true}) {
        layOut();
        ASSERT_EQ(::chown(source.c_str(), 65534, 65534), 0);
        ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0);
        ASSERT_EQ(::chown(index_.c_str(), 65534, 4711), 0);
        ASSERT_EQ(::chmod(index_.c_str(), 0604), 0);
        if (isNew) {
            ::unlink(index_.c_str());
        }
        {
            const FakeTool fake(postmap, telling(index_));
            rebuildTable(table);
        }
        EXPECT_EQ(told().substr(0, 11), "1600 65534 ");
        EXPECT_EQ(statusOf(index_).st_mode, S_IFREG | (isNew ? 0644U : 0604U));
        EXPECT_EQ(statusOf(index_).st_uid, 65534U);
        EXPECT_EQ(statusOf(index_).st_gid, isNew ? 65534U : 4711U);
    }
}

TEST_F(ShieldedIndexTest, OwnerOfTheSourceGetsNoCopyOfTheIndexOfAnotherAccount) {
    layOut();
    ASSERT_EQ(::chown(source.c_str(), 65534, 65534), 0);
    const ino_t before = statusOf(index_).st_ino;
    const FakeTool fake(postmap, "stat -c '%a %u %s' " + index_ + " > " + told_);
    rebuildTable(table);
    EXPECT_EQ(told().substr(0, 6), "604 0 ");
    EXPECT_EQ(statusOf(index_).st_ino, before);
}

} // namespace
