// Users of the operations on tables: the record cache, the blacklist, the domain
// manager, the mailbox owner.
#include "TablesFixture.h"
#include "support/FakeTool.h"
#include "torva/postfix/tables/Blacklist.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/DomainManager.h"
#include "torva/postfix/tables/PopUser.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/RecordCache.h"
#include "torva/util/PostfixError.h"
#include "torva/util/SystemError.h"

#include <gmock/gmock.h>

using namespace torva::mail::postfix;
using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

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
