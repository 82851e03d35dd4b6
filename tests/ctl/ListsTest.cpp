#include "ctl/host/Lists.h"

#include <gmock/gmock.h>

namespace torva::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> mapsIn(const std::string& value) {
    std::vector<std::string> texts;
    for (const MapReference& map : mapReferences(value)) {
        texts.push_back(map.text());
    }
    return texts;
}

TEST(ListsTest, ElementsStandBetweenBlanksAndCommas) {
    EXPECT_THAT(listElements(""), IsEmpty());
    EXPECT_THAT(listElements(" , ,"), IsEmpty());
    EXPECT_THAT(listElements("hash:/a hash:/b,hash:/c\t,hash:/d"),
                ElementsAre("hash:/a", "hash:/b", "hash:/c", "hash:/d"));
}

TEST(ListsTest, WhatStandsInBracesIsOneElement) {
    EXPECT_THAT(listElements("a, { b, {c d} } e"), ElementsAre("a", "{ b, {c d} }", "e"));
}

TEST(ListsTest, TablesAreFoundWhereverTheyStand) {
    EXPECT_THAT(mapsIn("check_client_access cidr:/etc/a, proxy:hash:/etc/b"),
                ElementsAre("cidr:/etc/a", "hash:/etc/b"));
    EXPECT_THAT(mapsIn("unionmap:{hash:/etc/a, texthash:/etc/b}"),
                ElementsAre("hash:/etc/a", "texthash:/etc/b"));
    EXPECT_THAT(mapsIn("static:/x unix:/run/socket inline:{a=b} $alias_maps"), IsEmpty());
}

TEST(ListsTest, OpenedFileIsTheIndexWhereThereIsOne) {
    EXPECT_EQ(openedFile({"hash", "/a"}), "/a.db");
    EXPECT_EQ(openedFile({"lmdb", "/a"}), "/a.lmdb");
    EXPECT_EQ(openedFile({"cidr", "/a"}), "/a");
    EXPECT_TRUE(isIndexed("btree"));
    EXPECT_FALSE(isIndexed("pcre"));
}

TEST(ListsTest, IndexFilesAreKnownByTheEndsOfTheirNames) {
    for (const char* name :
         {"virtual.db", "virtual.cdb", "virtual.lmdb", "virtual.dir", "a.b.db"}) {
        EXPECT_TRUE(isIndexName(name)) << name;
    }
    for (const char* name : {"virtual", ".db", "", "virtual.db.new", "virtualdb", "no_relay.re"}) {
        EXPECT_FALSE(isIndexName(name)) << name;
    }
}

} // namespace
} // namespace torva::ctl
