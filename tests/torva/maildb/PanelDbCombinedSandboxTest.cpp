#include "torva/maildb/panel_db_combined.h"

#include "support/AllocationFaults.h"
#include "torva/maildb/CombinedFixture.h"
#include "torva/maildb/MysqlProxy.h"
#include "torva/maildb/panel_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mysql.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

// Removing a mail name.

TEST_F(Combined, AMailNameIsRemovedFromItsDomainAndEachAlias) {
    add_domains({"example.com", "example.net", "example.org", "other.example"});
    add_users({"joe@example.com", "joe@example.net", "joe@example.org", "joe@other.example",
               "ann@example.com", "ann@example.net"});
    EXPECT_EQ(0, db_remove_mail_name(nullptr, postfix_type, "joe", "example.com"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@other.example", "ann@example.com", "ann@example.net"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, RemovingAMailNameOnceMoreIsQuietSuccess) {
    add_domains({"example.com", "example.net", "example.org"});
    add_users({"joe@example.com", "sales@example.net"});
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_EQ(0, db_remove_mail_name_with_aliases(nullptr, postfix_type, "joe", "example.com"));
        EXPECT_THAT(log.take(), IsEmpty());
    }
    EXPECT_THAT(users(), IsEmpty());
}

TEST_F(Combined, AGivenConnectionIsUsedAndStaysOpen) {
    add_domains({"example.com", "example.net", "example.org"});
    add_users({"joe@example.com", "joe@example.net"});
    char message[256] = "";
    const std::unique_ptr<MYSQL, void (*)(MYSQL*)> connection(db_open(message, sizeof message),
                                                              mysql_close);
    ASSERT_NE(nullptr, connection);
    mysql_query(connection.get(), "SET @mine='kept'");
    EXPECT_EQ(0, db_remove_mail_name(connection.get(), postfix_type, "joe", "example.com"));
    EXPECT_THAT(users(), IsEmpty());
    char** list = nullptr;
    EXPECT_EQ(0, db_query_list(connection.get(), "SELECT @mine", &list));
    EXPECT_STREQ("kept", list[0]);
    db_free_list(list);
}

TEST_F(Combined, RemovingAMailNameGoesOnAfterEachFailedStep) {
    add_domains({"example.org"});
    add_users({"joe@example.org"});
    EXPECT_EQ(-1, db_remove_mail_name(nullptr, postfix_type, "joe", "example.com"));
    EXPECT_THAT(users(), IsEmpty()) << "the last alias had its turn";
    EXPECT_THAT(log.take(), ElementsAre(no_domain("example.com"),
                                        error("Unable to remove mailname joe@example.com"),
                                        no_domain("example.net"),
                                        error("Unable to remove mailname joe@example.net")));
}

TEST_F(Combined, RemovingAMailNameWithoutThePanelsDatabaseStillRemovesItFromItsDomain) {
    add_domains({"example.com"});
    add_users({"joe@example.com"});
    {
        const MysqlProxy proxy(domain_aliases_query("example.com"), MysqlProxy::Action::hang_up);
        EXPECT_EQ(-1, db_remove_mail_name(nullptr, postfix_type, "joe", "example.com"));
    }
    EXPECT_THAT(users(), IsEmpty());
    EXPECT_THAT(log.take(),
                ElementsAre(no_data,
                            error("Unable to get domain aliases from database for: example.com"),
                            error("Unable to get domain aliases for domain example.com")));
}

TEST_F(Combined, AMailNameIsRemovedWithItsAliasesEverywhere) {
    add_domains({"example.com", "example.net", "example.org"});
    for (const char* domain : {"@example.com", "@example.net", "@example.org"}) {
        for (const char* name : {"joe", "sales", "info", "ann"}) {
            add_users({std::string(name) + domain});
        }
    }
    EXPECT_EQ(0, db_remove_mail_name_with_aliases(nullptr, postfix_type, "joe", "example.com"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("ann@example.com", "ann@example.net", "ann@example.org"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, RemovingAMailNameWithItsAliasesReportsEachName) {
    add_domains({"example.com", "example.net"}); // example.org is missing
    add_users({"joe@example.com", "sales@example.net", "info@example.net"});
    EXPECT_EQ(-1, db_remove_mail_name_with_aliases(nullptr, postfix_type, "joe", "example.com"));
    EXPECT_THAT(users(), IsEmpty());
    EXPECT_THAT(
        log.take(),
        ElementsAre(no_domain("example.org"), error("Unable to remove mailname joe@example.org"),
                    error("Unable to remove mailname from domain aliases"),
                    no_domain("example.org"), error("Unable to remove mailname sales@example.org"),
                    error("Unable to remove mailname sales@example.com"), no_domain("example.org"),
                    error("Unable to remove mailname info@example.org"),
                    error("Unable to remove mailname info@example.com")));
}

TEST_F(Combined, MailAliasesThatCannotBeAskedForAreReported) {
    add_domains({"example.com", "example.net", "example.org"});
    add_users({"joe@example.com", "sales@example.com"});
    {
        const MysqlProxy proxy(mail_aliases_query("joe", "example.com"),
                               MysqlProxy::Action::hang_up);
        EXPECT_EQ(-1,
                  db_remove_mail_name_with_aliases(nullptr, postfix_type, "joe", "example.com"));
    }
    EXPECT_THAT(users(), ElementsAre("sales@example.com"));
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get aliases for mailname: joe@example.com"),
                            error("Unable to get mail aliases for mailname joeexample.com")));
}

// Changing a domain.

struct Changes {
    std::vector<std::string> seen;
    std::vector<std::string> refused;
};

int record_change(const char* domain, void* context) {
    Changes& changes = *static_cast<Changes*>(context);
    changes.seen.emplace_back(domain);
    for (const std::string& refused : changes.refused) {
        if (refused == domain) {
            return -1;
        }
    }
    return 0;
}

TEST_F(Combined, AChangeIsAppliedToTheDomainAndEachAliasInOrder) {
    Changes changes;
    EXPECT_EQ(0,
              db_change_domain(nullptr, "example.com", "turn off mail", record_change, &changes));
    EXPECT_THAT(changes.seen, ElementsAre("example.com", "example.net", "example.org"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, AChangeGoesOnAfterEachFailedStep) {
    Changes changes{{}, {"example.com", "example.net"}};
    EXPECT_EQ(-1,
              db_change_domain(nullptr, "example.com", "turn off mail", record_change, &changes));
    EXPECT_THAT(changes.seen, ElementsAre("example.com", "example.net", "example.org"));
    EXPECT_THAT(log.take(),
                ElementsAre(error("Unable to turn off mail for domain example.com"),
                            error("Unable to turn off mail for domain alias example.net")));
}

TEST_F(Combined, AChangeReportsAliasesThatCannotBeAskedFor) {
    Changes changes;
    {
        const MysqlProxy proxy(domain_aliases_query("example.com"), MysqlProxy::Action::hang_up);
        EXPECT_EQ(
            -1, db_change_domain(nullptr, "example.com", "turn off mail", record_change, &changes));
    }
    EXPECT_THAT(changes.seen, ElementsAre("example.com"));
    EXPECT_THAT(log.take(),
                ElementsAre(no_data,
                            error("Unable to get domain aliases from database for: example.com"),
                            error("Unable to get aliases for domain example.com")));
}

TEST_F(Combined, ADomainsStatusIsChangedWithItsAliases) {
    add_domains({"example.com", "example.net", "example.org", "other.example"});
    const auto disable = [](const char* domain, void* context) {
        return mail_auth_set_domain_status(postfix_type, domain, *static_cast<int*>(context));
    };
    int status = 2;
    EXPECT_EQ(0, db_change_domain(nullptr, "example.com", "disable", disable, &status));
    EXPECT_THAT(rows("SELECT name, status FROM domains ORDER BY id"),
                ElementsAre("example.com|2", "example.net|2", "example.org|2", "other.example|0"));
}

// Setting a password.

TEST_F(Combined, APasswordIsSetOnEveryDomainAlias) {
    add_domains({"example.com", "example.net", "example.org"});
    add_users({"joe@example.com", "joe@example.net"});
    EXPECT_EQ(0, db_set_mail_password(nullptr, postfix_type, "joe", "example.com", "new", 1, 3));
    EXPECT_THAT(records(),
                UnorderedElementsAre("joe@example.com|p|NULL|0", "joe@example.net|NULL|new|3",
                                     "joe@example.org|NULL|new|3"));
    EXPECT_EQ(0, db_set_mail_password(nullptr, postfix_type, "joe", "example.com", "newer", 0, 0));
    EXPECT_THAT(records(),
                UnorderedElementsAre("joe@example.com|p|NULL|0", "joe@example.net|newer|NULL|0",
                                     "joe@example.org|newer|NULL|0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, SettingAPasswordGoesOnAfterEachFailedStep) {
    add_domains({"example.org"});
    EXPECT_EQ(-1, db_set_mail_password(nullptr, postfix_type, "joe", "example.com", "new", 0, 0));
    EXPECT_THAT(records(), ElementsAre("joe@example.org|new|NULL|0"));
    EXPECT_THAT(log.take(),
                ElementsAre(no_domain("example.net"),
                            error("Unable to set password for mailname joe@example.net")));
}

TEST_F(Combined, SettingAPasswordReportsLackOfMemoryForAnAddress) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    add_domains({"example.net", "example.org"});
    const std::string name(100000, 'n');
    {
        const AllocationFaults faults(100000);
        EXPECT_EQ(-1, db_set_mail_password(nullptr, postfix_type, name.c_str(), "example.com",
                                           "new", 0, 0));
    }
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(Combined, SettingAPasswordReportsAliasesThatCannotBeAskedFor) {
    server.stop();
    EXPECT_EQ(-1, db_set_mail_password(nullptr, postfix_type, "joe", "example.com", "new", 0, 0));
    server.restart();
    EXPECT_THAT(
        log.take(),
        ElementsAre(error("Unable to connect to Torva Database: Can't connect to local server "
                          "through socket '/run/mysqld/mysqld.sock' (2)"),
                    error("Unable to connect to mysql database"),
                    error("Unable to get domain aliases from database for: example.com"),
                    error("Unable to get domain aliases for domain example.com")));
}

} // namespace
