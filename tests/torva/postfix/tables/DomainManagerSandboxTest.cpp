// The domain manager on a real panel database and a real hash table.
#include "support/FakeTool.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/DomainManager.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/util/PostfixError.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

using namespace torva::mail::postfix;
using testing::ElementsAre;
using testing::Pair;
using torva::test::FakeTool;

namespace {

const char table[] = "hash:/var/spool/postfix/torva/virtual";

const char reserved[] = "postmaster@host.example.net postmaster@localhost.localdomain\n"
                        "mailer-daemon@host.example.net mailer-daemon@localhost.localdomain\n"
                        "root@host.example.net root@localhost.localdomain\n"
                        "anonymous@host.example.net anonymous@localhost.localdomain\n"
                        "drweb@host.example.net drweb@localhost.localdomain\n";

void shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

void sql(const std::string& statements) {
    shell("mariadb --no-defaults --socket=/run/mysqld/mysqld.sock --user=root kra -e \"" +
          statements + "\"");
}

class DomainManagerTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr);
        if (std::string(std::getenv("TORVA_SANDBOX")) == "namespaces") {
            shell(TORVA_SOURCE_DIR "/tests/tools/private-mariadb start");
        }
    }
    static void TearDownTestSuite() {
        static_cast<void>(
            std::system(TORVA_SOURCE_DIR "/tests/tools/private-mariadb wipe >/dev/null 2>&1"));
    }
    void SetUp() override {
        sql("DELETE FROM domains; DELETE FROM mail; DELETE FROM mail_aliases;"
            "INSERT INTO domains (id, name) VALUES (1, 'example.com'), (2, 'other.example');");
        ::mkdir("/var/spool/postfix/torva", 0755);
        createTable(table, {});
    }
};

/// The input that the operation gives to postmap, which really writes the records.
std::string fedRecords() {
    const FakeTool recording("/usr/sbin/postmap", torva::test::passThrough);
    DomainManager().addAliasDomain("example.com", "host.example.net");
    return recording.input();
}

TEST_F(DomainManagerTest, DomainWithoutMailNamesHasItsReservedAddressesOnly) {
    EXPECT_EQ(fedRecords(), reserved);
    EXPECT_EQ(dumpTable(table).size(), 5U);
}

TEST_F(DomainManagerTest, MailNameWithTwoAliasesGivesThreeRecords) {
    sql("INSERT INTO mail (id, dom_id, mail_name) VALUES (1, 1, 'ann'), (2, 2, 'stranger');"
        "INSERT INTO mail_aliases (id, mn_id, alias) VALUES (1, 1, 'sales'), (2, 1, 'info'),"
        "(3, 2, 'nobody');");
    EXPECT_EQ(fedRecords(), std::string(reserved) + "sales@host.example.net ann@example.com\n"
                                                    "info@host.example.net ann@example.com\n"
                                                    "ann@host.example.net ann@example.com\n");
    RecordFilter ofAnn;
    ofAnn.key = [](const std::string& key) { return key == "info@host.example.net"; };
    EXPECT_THAT(dumpTable(table, ofAnn),
                ElementsAre(Pair("info@host.example.net", "ann@example.com")));
}

TEST_F(DomainManagerTest, MailNameWhoseAliasesCannotBeReadGetsItsOwnRecord) {
    sql("INSERT INTO mail (id, dom_id, mail_name) VALUES (1, 1, 'ann');"
        "RENAME TABLE mail_aliases TO hidden;");
    const std::string fed = fedRecords();
    sql("RENAME TABLE hidden TO mail_aliases;");
    EXPECT_EQ(fed, std::string(reserved) + "ann@host.example.net ann@example.com\n");
}

TEST_F(DomainManagerTest, EarlierValueOfAnAddressIsReplaced) {
    putRecords(table, Records{{"root@host.example.net", "elsewhere@example.org"}});
    fedRecords();
    RecordFilter ofRoot;
    ofRoot.key = [](const std::string& key) { return key == "root@host.example.net"; };
    EXPECT_THAT(dumpTable(table, ofRoot),
                ElementsAre(Pair("root@host.example.net", "root@localhost.localdomain")));
}

TEST_F(DomainManagerTest, FailedReservedRecordsEndTheOperation) {
    sql("INSERT INTO mail (id, dom_id, mail_name) VALUES (1, 1, 'ann');");
    const FakeTool fake("/usr/sbin/postmap", "echo 'postmap: fatal: x' >&2; exit 1");
    EXPECT_THROW(DomainManager().addAliasDomain("example.com", "host.example.net"),
                 PostfixConfigurationError);
    EXPECT_EQ(fake.input(), reserved);
}

} // namespace
