// Cloning authentication records, and removing a domain alias.
#include "torva/maildb/panel_db_combined.h"

#include "torva/maildb/CombinedFixture.h"
#include "torva/maildb/MysqlProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr auto hang_up = MysqlProxy::Action::hang_up;

// Cloning.

TEST_F(Combined, RecordsOfMailNamesAndAliasesAreClonedWithPasswordAndStatus) {
    add_domains({"example.com", "new.example"});
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "plain", 0, 1));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "sales@example.com", "sealed", 1, 2));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "info@example.com", nullptr, 0, 3));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "ann@example.com", "", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "unlisted@example.com", "p", 0, 0));
    EXPECT_EQ(0, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    EXPECT_THAT(records(), UnorderedElementsAre(
                               "joe@example.com|plain|NULL|1", "sales@example.com|NULL|sealed|2",
                               "info@example.com|NULL|NULL|3", "ann@example.com||NULL|0",
                               "unlisted@example.com|p|NULL|0", "joe@new.example|plain|NULL|1",
                               "sales@new.example|NULL|sealed|2", "info@new.example|NULL|NULL|3",
                               "ann@new.example||NULL|0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, AClonedRecordWithAnEmptyPlainPasswordKeepsTheEncryptedOne) {
    add_domains({"example.com", "new.example"});
    run("INSERT INTO users (dom_id, name, userPassword, cmusaslsecretPLAIN) VALUES "
        "(1, 'joe', '', 'sealed'), (1, 'ann', 'plain', 'sealed'), (1, 'sales', '', ''), "
        "(1, 'info', NULL, '')");
    EXPECT_EQ(0, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    EXPECT_THAT(
        rows("SELECT name, userPassword, cmusaslsecretPLAIN FROM users WHERE dom_id=2"),
        UnorderedElementsAre("joe|NULL|sealed", "ann|plain|NULL", "sales||NULL", "info|NULL|NULL"));
}

TEST_F(Combined, CloningGoesOnAfterEachFailedStep) {
    add_domains({"example.com", "new.example"});
    add_users({"info@example.com", "ann@example.com"});
    EXPECT_EQ(-1, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    EXPECT_THAT(users(), UnorderedElementsAre("info@example.com", "ann@example.com",
                                              "info@new.example", "ann@new.example"));
    EXPECT_THAT(
        log.take(),
        ElementsAre(error("No such user 'joe@example.com' in mail authorization database"),
                    error("Unable to clone auth record for joe@example.com"),
                    error("No such user 'sales@example.com' in mail authorization database"),
                    error("Unable to clone auth record for sales@example.com")));
}

TEST_F(Combined, CloningToADomainThatIsNotThereFails) {
    add_domains({"example.com"});
    add_users({"ann@example.com"});
    server.run("DELETE FROM mail WHERE mail_name='joe'");
    EXPECT_EQ(-1, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    EXPECT_THAT(log.take(), ElementsAre(no_domain("new.example"),
                                        error("Unable to clone auth record for ann@example.com")));
}

TEST_F(Combined, CloningReportsQueriesThatFail) {
    add_domains({"example.com", "new.example"});
    add_users({"joe@example.com", "ann@example.com", "sales@example.com"});
    {
        const MysqlProxy proxy(mail_aliases_query("joe", "example.com"), hang_up);
        EXPECT_EQ(-1, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get aliases for mailname: joe@example.com"),
                            error("Unable to get mail aliases for joe@example.com")));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@example.com", "ann@example.com", "sales@example.com",
                                     "joe@new.example", "ann@new.example"));
    {
        const MysqlProxy proxy(mail_names_query("example.com"), hang_up);
        EXPECT_EQ(-1, db_clone_auth_records(nullptr, postfix_type, "example.com", "new.example"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get mailnames from domain: example.com"),
                            error("Unable to get mailnames from domain example.com")));
}

// Removing a domain alias.

TEST_F(Combined, ADomainAliasIsRemovedAndItsRealDomainStays) {
    add_domains({"example.com", "example.net", "example.org"});
    for (const char* domain : {"@example.com", "@example.net", "@example.org"}) {
        for (const char* name : {"joe", "sales", "info", "ann"}) {
            add_users({std::string(name) + domain});
        }
    }
    EXPECT_EQ(0, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    EXPECT_THAT(domains(), UnorderedElementsAre("example.com", "example.org"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@example.com", "sales@example.com", "info@example.com",
                                     "ann@example.com", "joe@example.org", "sales@example.org",
                                     "info@example.org", "ann@example.org"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, ANameThatIsNoDomainAliasIsLeftAlone) {
    add_domains({"example.com", "stranger.example"});
    add_users({"joe@example.com", "joe@stranger.example"});
    for (const std::string name : {"example.com", "stranger.example"}) {
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, name.c_str()));
        EXPECT_THAT(log.take(), ElementsAre(error("Unable to get domain by domain alias " + name)));
    }
    EXPECT_THAT(domains(), UnorderedElementsAre("example.com", "stranger.example"));
    EXPECT_THAT(users(), UnorderedElementsAre("joe@example.com", "joe@stranger.example"));
}

TEST_F(Combined, RemovingADomainAliasGoesOnAfterEachFailedStep) {
    add_domains({"example.com", "example.net"});
    add_users({"joe@example.com", "joe@example.net", "sales@example.net", "ann@example.net"});
    run("CREATE TRIGGER refuse_removal BEFORE DELETE ON users WHEN OLD.name='joe' OR "
        "OLD.name='sales' BEGIN SELECT RAISE(ABORT, 'refused'); END");
    EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@example.com", "joe@example.net", "sales@example.net"));
    EXPECT_THAT(
        log.take(),
        ElementsAre(error("Unable to execute the user removal query: refused"),
                    error("Unable to remove mail alias joe@example.net"),
                    error("Unable to execute the user removal query: refused"),
                    error("Unable to remove mail alias sales@example.net"),
                    error("Unable to execute the mail domain authorization removal query: refused"),
                    error("Unable to remove domain example.net from auth database")));
}

TEST_F(Combined, RemovingADomainAliasReportsQueriesThatFail) {
    add_domains({"example.net"});
    {
        const MysqlProxy proxy(mail_aliases_query("joe", "example.com"), hang_up);
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get aliases for mailname: joe@example.com"),
                            error("Unable to get aliases for mailname joe@example.com")));
    EXPECT_THAT(domains(), IsEmpty());

    add_domains({"example.net"});
    {
        const MysqlProxy proxy(mail_names_query("example.com"), hang_up);
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get mailnames from domain: example.com"),
                            error("Unable to get mailnames from domain example.com")));
    EXPECT_THAT(domains(), IsEmpty());
}

const char* const real_domain_query = "SELECT d.name FROM domains d JOIN domainaliases da WHERE "
                                      "d.id=da.dom_id AND da.name='example.net'";

TEST_F(Combined, ADomainWhoseRealDomainCannotBeAskedForStaysWhole) {
    add_domains({"example.net", "example.com"});
    add_users({"joe@example.net", "other@example.net", "joe@example.com"});
    const auto before = records();
    {
        const MysqlProxy proxy(real_domain_query, hang_up);
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    }
    const std::vector<LogLine> refusal = {
        no_data, error("Unable to get domain by domainalias: example.net"),
        error("Unable to get domain by domain alias example.net")};
    EXPECT_EQ(refusal, log.take());
    server.stop();
    EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.com"));
    server.restart();
    EXPECT_THAT(log.take(),
                testing::Contains(error("Unable to get domain by domain alias example.com")));
    EXPECT_EQ(before, records());
    EXPECT_THAT(domains(), UnorderedElementsAre("example.net", "example.com"));
}

TEST_F(Combined, RemovingADomainAliasOnceMoreIsQuietSuccess) {
    add_domains({"example.com", "example.net"});
    add_users({"joe@example.com", "joe@example.net"});
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_EQ(0, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
        EXPECT_THAT(log.take(), IsEmpty());
    }
    EXPECT_THAT(users(), ElementsAre("joe@example.com"));
    server.run("DELETE FROM domainaliases");
    EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"))
        << "it is not known any more whether it was an alias";
    EXPECT_THAT(log.take(), ElementsAre(error("Unable to get domain by domain alias example.net")));
}

TEST_F(Combined, RemovingADomainAliasNeedsTheAuthenticationDatabase) {
    std::filesystem::remove(auth_path);
    EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, postfix_type, "example.net"));
    EXPECT_THAT(log.take(),
                ElementsAre(error(std::string("Unable to open database(readonly) ") + auth_path +
                                  ": unable to open database file"),
                            error("Unable to remove domain example.net from auth database")));
}

} // namespace
