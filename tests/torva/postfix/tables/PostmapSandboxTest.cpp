// The operations on lookup tables, with a fake in the place of postmap where its
// behaviour is the point, and with the real one on real hash tables.
#include "support/FakeTool.h"
#include "torva/postfix/tables/Blacklist.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/DomainManager.h"
#include "torva/postfix/tables/PopUser.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/RecordCache.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using torva::test::contentOf;
using torva::test::FakeTool;
using torva::test::namesIn;
using torva::test::writeFile;

namespace {

const char postmap[] = "/usr/sbin/postmap";
const char directory[] = "/var/spool/postfix/torva";
const char table[] = "hash:/var/spool/postfix/torva/virtual";
const char source[] = "/var/spool/postfix/torva/virtual";

template <class Error>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "no error";
}

class TablesTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr);
        ::mkdir(directory, 0755);
        for (const std::string& name : namesIn(directory)) {
            ::unlink((std::string(directory) + "/" + name).c_str());
        }
    }
};

// ---- the command lines and what postmap is fed

using FakePostmapTest = TablesTest;

TEST_F(FakePostmapTest, PutWritesOneLineForEachRecord) {
    const FakeTool fake(postmap, "");
    putRecords(table, Records{{"alpha", "one"}, {"beta", "two, three"}});
    EXPECT_THAT(fake.calls(), ElementsAre("[-r][-i][hash:/var/spool/postfix/torva/virtual]"));
    EXPECT_EQ(fake.input(), "alpha one\nbeta two, three\n");
}

TEST_F(FakePostmapTest, EveryContainerGivesTheSameLines) {
    const FakeTool fake(postmap, "");
    putRecords(table, std::vector<Record>{{"alpha", "one"}, {"beta", "two"}});
    putRecords(table, std::map<std::string, std::string>{{"alpha", "one"}, {"beta", "two"}});
    EXPECT_EQ(fake.input(), "alpha one\nbeta two\nalpha one\nbeta two\n");
}

TEST_F(FakePostmapTest, EmptyListsStartNoProcessAndTakeNoLock) {
    const FakeTool fake(postmap, "");
    const torva::FileLock held(source, torva::LockMode::wait);
    putRecords(table, Records());
    putRecords(table, std::vector<Record>());
    putRecords(table, std::map<std::string, std::string>());
    deleteKeys(table, {});
    EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(FakePostmapTest, DeleteFeedsTheKeys) {
    const FakeTool fake(postmap, "exit 1");
    deleteKeys(table, {"x", "y"});
    EXPECT_THAT(fake.calls(), ElementsAre("[-d][-][hash:/var/spool/postfix/torva/virtual]"));
    EXPECT_EQ(fake.input(), "x\ny\n");
}

TEST_F(FakePostmapTest, ListAndRebuildHaveNoInput) {
    const FakeTool fake(postmap, "");
    dumpTable(table);
    rebuildTable(table);
    EXPECT_THAT(fake.calls(), ElementsAre("[-s][hash:/var/spool/postfix/torva/virtual]",
                                          "[hash:/var/spool/postfix/torva/virtual]"));
    EXPECT_EQ(fake.input(), "");
}

// ---- how an outcome is judged

TEST_F(FakePostmapTest, StatusOneWithoutTextIsAnUnknownError) {
    const FakeTool fake(postmap, "exit 1");
    const auto message = messageOf<PostfixConfigurationError>;
    EXPECT_EQ(message([] { putRecords(table, Records{{"a", "b"}}); }), "unknown error");
    EXPECT_EQ(message([] { dumpTable(table); }), "unknown error");
    EXPECT_EQ(message([] { rebuildTable(table); }), "unknown error");
    EXPECT_EQ(messageOf<PostfixDatabaseError>([] { createTable(table, {}); }), "unknown error");
}

TEST_F(FakePostmapTest, FailureCarriesTheTextUntrimmed) {
    const FakeTool fake(postmap, "echo 'postmap: fatal: x' >&2; exit 1");
    const auto message = messageOf<PostfixConfigurationError>;
    EXPECT_EQ(message([] { putRecords(table, Records{{"a", "b"}}); }), "postmap: fatal: x\n");
    EXPECT_EQ(message([] { dumpTable(table); }), "postmap: fatal: x\n");
    EXPECT_EQ(message([] { rebuildTable(table); }), "postmap: fatal: x\n");
    const auto databaseMessage = messageOf<PostfixDatabaseError>;
    EXPECT_EQ(databaseMessage([] { deleteKeys(table, {"a"}); }), "postmap: fatal: x\n");
    EXPECT_EQ(databaseMessage([] { createTable(table, {}); }), "postmap: fatal: x\n");
}

TEST_F(FakePostmapTest, FailedCreationLeavesNoHalfMadeIndex) {
    const FakeTool fake(postmap, "touch /var/spool/postfix/torva/__db.virtual.db; exit 1");
    EXPECT_THROW(createTable(table, {}), PostfixDatabaseError);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(FakePostmapTest, DeletingAKeyThatIsNotThereIsNoError) {
    const FakeTool fake(postmap, "echo 'postmap: warning: no such key' >&2; exit 1");
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
}

TEST_F(FakePostmapTest, DeleteWithStatusZeroIsNotScanned) {
    const FakeTool fake(postmap, "echo 'postmap: fatal: x' >&2");
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
}

TEST_F(FakePostmapTest, DeathBySignalIsAFailure) {
    const FakeTool fake(postmap, "kill -KILL $$");
    EXPECT_EQ(messageOf<PostfixDatabaseError>([] { deleteKeys(table, {"a"}); }), "unknown error");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }), "unknown error");
}

TEST_F(FakePostmapTest, ListingIsTakenApartLineByLine) {
    const FakeTool fake(postmap, "printf 'key    value with  blanks   \\nlonelykey\\nempty \\t\\n"
                                 "other\\tx\\nunfinished y'");
    std::ostringstream log;
    std::streambuf* before = std::clog.rdbuf(log.rdbuf());
    const Records records = dumpTable(table);
    std::clog.rdbuf(before);
    EXPECT_THAT(records, ElementsAre(Pair("key", "value with  blanks"), Pair("other", "x")));
    EXPECT_EQ(log.str(), "invalid key/value 'lonelykey'\n");
}

TEST_F(FakePostmapTest, ListingGoesThroughTheFilter) {
    const FakeTool fake(postmap, "printf 'a 1\\nb 2\\nc 3\\n'");
    RecordFilter filter;
    filter.key = [](const std::string& key) { return key != "a"; };
    filter.value = [](std::string& value) {
        value = "<" + value + ">";
        return value != "<2>";
    };
    EXPECT_THAT(dumpTable(table, filter), ElementsAre(Pair("c", "<3>")));
}

// ---- real tables

using RealTableTest = TablesTest;

TEST_F(RealTableTest, CreatedTableIsEmptyAndReadable) {
    ::umask(077);
    createTable(table, {});
    ::umask(022);
    EXPECT_THAT(dumpTable(table), IsEmpty());
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
    struct stat status = {};
    ASSERT_EQ(::stat(source, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(RealTableTest, CreatedTableHoldsTheGivenRecordsAndNothingElse) {
    writeFile(source, "old record\n");
    rebuildTable(table);
    createTable(table, {{"alpha", "one"}, {"beta", "two, three"}});
    EXPECT_EQ(contentOf(source), "alpha one\nbeta two, three\n");
    EXPECT_THAT(dumpTable(table),
                UnorderedElementsAre(Pair("alpha", "one"), Pair("beta", "two, three")));
}

TEST_F(RealTableTest, CreatingAgainEmptiesTheTable) {
    createTable(table, {{"alpha", "one"}});
    createTable(table, {});
    EXPECT_EQ(contentOf(source), "");
    EXPECT_THAT(dumpTable(table), IsEmpty());
}

TEST_F(RealTableTest, IndexThatAKilledCreationLeftHalfMadeDoesNotKeepItFromBeingMade) {
    writeFile(std::string(directory) + "/__db.virtual.db", "");
    createTable(table, {{"alpha", "one"}});
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("alpha", "one")));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(RealTableTest, PutAddsAndReplacesAndDeleteTakesAway) {
    createTable(table, {});
    putRecords(table, Records{{"a", "1"}, {"b", "2"}});
    putRecords(table, Records{{"b", "3"}, {"c", "4"}});
    EXPECT_THAT(dumpTable(table),
                UnorderedElementsAre(Pair("a", "1"), Pair("b", "3"), Pair("c", "4")));
    deleteKeys(table, {"a", "never-there"});
    EXPECT_THAT(dumpTable(table), UnorderedElementsAre(Pair("b", "3"), Pair("c", "4")));
}

TEST_F(RealTableTest, RebuildTakesTheSourceFile) {
    writeFile(source, "x 1\n");
    rebuildTable(table);
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("x", "1")));
}

TEST_F(RealTableTest, ManyRecordsGoThroughAndComeBack) {
    createTable(table, {});
    std::vector<Record> records;
    for (int i = 0; i < 100000; ++i) {
        records.emplace_back("user" + std::to_string(i) + "@example.com",
                             "box" + std::to_string(i) + "@example.net");
    }
    putRecords(table, records);
    EXPECT_EQ(dumpTable(table).size(), records.size());
}

TEST_F(RealTableTest, UnknownTypeFailsWithPostmapsOwnText) {
    EXPECT_THAT(messageOf<PostfixConfigurationError>([] {
                    putRecords("nosuch:/tmp/x", Records{{"a", "b"}});
                }),
                HasSubstr("unsupported dictionary type: nosuch"));
}

TEST_F(RealTableTest, LockHeldElsewhereEndsTheCreationAndNeverEmptiesTheTable) {
    createTable(table, {{"alpha", "one"}});
    const torva::FileLock held(source, torva::LockMode::wait);
    EXPECT_EQ(messageOf<std::runtime_error>([] { createTable(table, {}); }),
              std::string("lock(") + source + ") failed: file is already locked");
    EXPECT_EQ(contentOf(source), "alpha one\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual", "virtual.db"));
}

TEST_F(RealTableTest, MissingDirectoryEndsTheCreationWithThePath) {
    EXPECT_EQ(messageOf<PostfixDatabaseError>([] { createTable("hash:/var/nowhere/t", {}); }),
              std::string("unable to write /var/nowhere/t: ") + std::strerror(ENOENT));
}

TEST_F(RealTableTest, FailedRenameLeavesTheScratchFileNowhere) {
    ASSERT_EQ(::mkdir(source, 0755), 0);
    EXPECT_THAT(messageOf<PostfixDatabaseError>([] {
                    createTable(table, {{"a", "b"}});
                }),
                StartsWith(std::string("unable to write ") + source + ": "));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
    ASSERT_EQ(::rmdir(source), 0);
}

TEST_F(RealTableTest, FailedPostmapLeavesTheScratchFileNowhere) {
    const FakeTool fake(postmap, "exit 1");
    EXPECT_THROW(createTable(table, {{"a", "b"}}), PostfixDatabaseError);
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
}

TEST_F(RealTableTest, FullDiskLeavesTheOldSourceWhole) {
    if (::mount("tmpfs", directory, "tmpfs", 0, "size=16k") != 0) {
        GTEST_SKIP() << "no tmpfs here: " << std::strerror(errno);
    }
    writeFile(source, "old record\n");
    Records records;
    for (int i = 0; i < 2000; ++i) {
        records.emplace_back("key" + std::to_string(i), "a value that takes some room");
    }
    EXPECT_EQ(messageOf<PostfixDatabaseError>([&] { createTable(table, records); }),
              std::string("unable to write ") + source + ": " + std::strerror(ENOSPC));
    EXPECT_EQ(contentOf(source), "old record\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual"));
    EXPECT_EQ(::umount(directory), 0);
}

// ---- what stands on them

using OnTablesTest = TablesTest;

TEST_F(OnTablesTest, DirectCacheGoesStraightToPostmap) {
    const FakeTool fake(postmap, "case $1 in -s) echo a b;; esac");
    RecordCache cache(table, CacheMode::direct);
    cache.put({{"a", "b"}});
    cache.remove({"c"});
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "b")));
    cache.flush();
    EXPECT_THAT(fake.calls(), ElementsAre("[-r][-i][hash:/var/spool/postfix/torva/virtual]",
                                          "[-d][-][hash:/var/spool/postfix/torva/virtual]",
                                          "[-s][hash:/var/spool/postfix/torva/virtual]"));
}

TEST_F(OnTablesTest, CollectingCacheWritesOnceAndForgets) {
    createTable(table, {});
    RecordCache cache(table, CacheMode::collecting);
    cache.put({{"a", "1"}, {"b", "2"}});
    cache.put({{"a", "3"}});
    EXPECT_THAT(dumpTable(table), IsEmpty());
    const FakeTool recording(postmap, torva::test::passThrough);
    cache.flush();
    cache.flush();
    EXPECT_EQ(recording.input(), "a 3\nb 2\n");
    EXPECT_EQ(recording.calls().size(), 1U);
    EXPECT_THAT(cache.list(), IsEmpty());
    EXPECT_THAT(dumpTable(table), UnorderedElementsAre(Pair("a", "3"), Pair("b", "2")));
}

TEST_F(OnTablesTest, CollectingCacheKeepsItsRecordsWhenTheyCannotBeWritten) {
    RecordCache cache(table, CacheMode::collecting);
    cache.put({{"a", "1"}});
    {
        const FakeTool fake(postmap, "exit 1");
        EXPECT_THROW(cache.flush(), PostfixConfigurationError);
    }
    EXPECT_THAT(cache.list(), ElementsAre(Pair("a", "1")));
}

TEST_F(OnTablesTest, BlacklistedSendersAreRejected) {
    createTable("hash:/var/spool/postfix/torva/blacklists", {});
    addToBlacklist({"spam@example.com", "example.org"});
    EXPECT_THAT(
        dumpTable("hash:/var/spool/postfix/torva/blacklists"),
        UnorderedElementsAre(Pair("spam@example.com", "REJECT"), Pair("example.org", "REJECT")));
    removeFromBlacklist({"example.org"});
    EXPECT_THAT(blacklist(), ElementsAre("spam@example.com"));
}

TEST_F(OnTablesTest, AliasDomainWithoutADatabaseHasItsReservedAddresses) {
    const FakeTool fake(postmap, "");
    const Records entry = DomainManager().addAliasDomain("example.com", "host.example.net");
    EXPECT_EQ(fake.input(), "postmaster@host.example.net postmaster@localhost.localdomain\n"
                            "mailer-daemon@host.example.net mailer-daemon@localhost.localdomain\n"
                            "root@host.example.net root@localhost.localdomain\n"
                            "anonymous@host.example.net anonymous@localhost.localdomain\n"
                            "drweb@host.example.net drweb@localhost.localdomain\n");
    EXPECT_EQ(fake.calls().size(), 1U);
    EXPECT_THAT(entry, ElementsAre(Pair("host.example.net", "1")));
}

TEST_F(OnTablesTest, MissingPopUserHasItsWordsRunTogether) {
    const std::string passwd = contentOf("/etc/passwd");
    writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    try {
        popUser();
        ADD_FAILURE() << "no exception";
    } catch (const torva::SystemError& error) {
        EXPECT_THAT(error.what(), StartsWith("user popusernot found: "));
    }
    writeFile("/etc/passwd", passwd);
}

TEST_F(OnTablesTest, PopUserIsTheAccountOfThatName) {
    const std::string passwd = contentOf("/etc/passwd");
    writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n"
                             "popuser:x:4711:4712::/var/qmail:/bin/false\n");
    EXPECT_EQ(popUser().pw_uid, 4711U);
    EXPECT_EQ(popUser().pw_gid, 4712U);
    writeFile("/etc/passwd", passwd);
}

} // namespace
