// The operations on lookup tables, with a fake for postmap where its
// behaviour is the point, and with the real one on real hash tables.
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/FileLock.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <iostream>
#include <sstream>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

// ---- the command lines, the input of postmap, and which results are failures

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

TEST_F(FakePostmapTest, DeletingAKeyThatIsNotThereIsNoError) {
    const FakeTool fake(postmap, "echo 'postmap: warning: no such key' >&2; exit 1");
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
}

/// Before a fake's own doing: the warnings of Postfix 3.11 about Berkeley DB, and the line
/// of one that redirects.
const std::string wordsOf311 =
    "printf '%s\\n' 'postmap: warning: /t: hash/btree support is deprecated.  Please switch to cdb "
    "or lmdb.' 'postmap: warning: See /usr/share/doc/postfix/NON_BERKELEYDB_README.gz for more "
    "info.' 'postmap: redirecting hash:/t to lmdb:/t' >&2;";

TEST_F(FakePostmapTest, WarningsOfLaterVersionsFailNoOperation) {
    const FakeTool fake(postmap, wordsOf311 + "[ \"$1\" != -s ] || echo 'a b'");
    EXPECT_NO_THROW(createTable(table, {}));
    EXPECT_NO_THROW(putRecords(table, Records{{"a", "b"}}));
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("a", "b")));
    EXPECT_NO_THROW(rebuildTable(table));
    EXPECT_NO_THROW(removeDomainFromTable(table, "example.com", false));
}

TEST_F(FakePostmapTest, WarningsOfLaterVersionsBesideStatusOneAreStillAKeyThatIsNotThere) {
    const FakeTool fake(postmap, wordsOf311 + "exit 1");
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
}

TEST_F(FakePostmapTest, RedirectThatTakesNoSingleRecordsIsAFailure) {
    const FakeTool fake(postmap,
                        "echo 'postmap: fatal: unsupported non-bulk change request' >&2; exit 1");
    const std::string words = "postmap: fatal: unsupported non-bulk change request\n";
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] {
                  putRecords(table, Records{{"a", "b"}});
              }),
              words);
    EXPECT_EQ(messageOf<PostfixDatabaseError>([] { deleteKeys(table, {"a"}); }), words);
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

TEST_F(FakePostmapTest, RecordsInBracesAreNoRiddle) {
    const FakeTool fake(postmap, "");
    putRecords(table, {{"k", "v"}});
    putRecords(table, {{"a", "1"}, {"b", "2"}});
    putRecords(table, {});
    EXPECT_EQ(fake.input(), "k v\na 1\nb 2\n");
    EXPECT_EQ(fake.calls().size(), 2U);
}

TEST_F(FakePostmapTest, WhatIsNoTableNameIsRefusedBeforeAnythingHappens) {
    const FakeTool fake(postmap, "");
    for (const std::string name : {"", "virtual", "/a/b", ":/a/b", "hash:", "-s:x", "-d"}) {
        const std::string refusal = "not a table: " + name;
        const auto message = messageOf<std::invalid_argument>;
        EXPECT_EQ(message([&] { createTable(name, {}); }), refusal);
        EXPECT_EQ(message([&] { putRecords(name, {{"k", "v"}}); }), refusal);
        EXPECT_EQ(message([&] { putRecords(name, Records()); }), refusal);
        EXPECT_EQ(message([&] { deleteKeys(name, {"k"}); }), refusal);
        EXPECT_EQ(message([&] { dumpTable(name); }), refusal);
        EXPECT_EQ(message([&] { rebuildTable(name); }), refusal);
        EXPECT_EQ(message([&] { removeDomainFromTable(name, "d.net", false); }), refusal);
    }
    EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(FakePostmapTest, DeletionThatOnlyAStrictJudgeWouldRefuseIsNoError) {
    const FakeTool fake(postmap, "echo 'postmap: unusual: text' >&2; exit 1");
    EXPECT_NO_THROW(deleteKeys(table, {"a"}));
}

TEST_F(FakePostmapTest, FailedPutOrRebuildLeavesNoHalfMadeIndex) {
    const std::string half = directory + "/__db.virtual.db";
    const FakeTool fake(postmap,
                        "test -e " + half + " && echo found >&2; touch " + half + "; exit 1");
    writeFile(half, "of a killed one");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] {
                  putRecords(table, {{"a", "b"}});
              }),
              "unknown error");
    EXPECT_THAT(namesIn(directory), IsEmpty());
    writeFile(half, "of a killed one");
    EXPECT_EQ(messageOf<PostfixConfigurationError>([] { rebuildTable(table); }), "unknown error");
    EXPECT_THAT(namesIn(directory), IsEmpty());
}

// ---- real tables

using RealTableTest = TablesTest;

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

TEST_F(RealTableTest, PutMakesTheIndexThatAKilledOneLeftHalfMade) {
    writeFile(directory + "/__db.virtual.db", "");
    putRecords(table, {{"a", "1"}});
    EXPECT_THAT(dumpTable(table), ElementsAre(Pair("a", "1")));
    EXPECT_THAT(namesIn(directory), ElementsAre("virtual.db"));
}

} // namespace
