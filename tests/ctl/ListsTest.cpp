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

TEST(ListsTest, TablesOfDatabasesHaveFilesToo) {
    EXPECT_THAT(mapsIn("mysql:/etc/a, proxy:ldap:/etc/b pgsql:c sqlite:/etc/d memcache:/etc/e"),
                ElementsAre("mysql:/etc/a", "ldap:/etc/b", "sqlite:/etc/d", "memcache:/etc/e"));
    EXPECT_EQ(openedFile({"mysql", "/etc/a"}), "/etc/a");
}

TEST(ListsTest, TypeInCapitalsIsFoundAsItIsWritten) {
    EXPECT_THAT(mapsIn("HASH:/etc/a Proxy:Btree:/etc/b"),
                ElementsAre("HASH:/etc/a", "Btree:/etc/b"));
}

TEST(ListsTest, ListOfTablesHasTypesOfAllKinds) {
    std::vector<std::string> texts;
    for (const MapReference& map :
         tableElements("hsah:/etc/a proxy:ldap:b, unix:passwd.byname proxy:proxy:hash:c, /d e "
                       "{inline:{x=y}} unionmap:{hash:/f, hash:/g} proxy:")) {
        texts.push_back(map.text());
    }
    EXPECT_THAT(texts, ElementsAre("hsah:/etc/a", "ldap:b", "unix:passwd.byname", "hash:c",
                                   "unionmap:{hash:/f, hash:/g}"));
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
