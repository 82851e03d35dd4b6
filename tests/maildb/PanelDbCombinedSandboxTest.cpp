#include "maildb/panel_db_combined.h"

#include "maildb/AuthDatabase.h"
#include "maildb/MysqlProxy.h"
#include "maildb/PrivateMariaDb.h"
#include "maildb/panel_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mysql.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr int type = postfix_type;

LogLine error(const std::string& text) {
    return {3, text};
}
const LogLine no_data = error("Unable to get data from mysql database");

LogLine no_domain(const std::string& domain) {
    return error("No such domain '" + domain + "' in the mail authentication DB");
}

/// In the panel's database: example.com with the aliases example.net and example.org,
/// and the mail names joe (aliases sales and info) and ann. The authentication database
/// is empty.
class Combined : public AuthDatabase {
protected:
    Combined() : server(PrivateMariaDb::fresh()) {
        server.run("INSERT INTO domains VALUES (1, 'example.com'), (2, 'other.example');"
                   "INSERT INTO domainaliases VALUES (1, 1, 'example.net'), (2, 1, 'example.org');"
                   "INSERT INTO mail VALUES (1, 1, 'joe'), (2, 1, 'ann'), (3, 2, 'joe');"
                   "INSERT INTO mail_aliases VALUES (1, 1, 'sales'), (2, 1, 'info')");
    }

    static void add_domains(const std::vector<std::string>& domains) {
        for (const std::string& domain : domains) {
            EXPECT_EQ(0, mail_auth_add_domain(type, domain.c_str(), 0));
        }
    }
    static void add_users(const std::vector<std::string>& addresses) {
        for (const std::string& address : addresses) {
            EXPECT_EQ(0, mail_auth_set_user(type, address.c_str(), "p", 0, 0));
        }
    }

    /// What is in the authentication database.
    static std::vector<std::string> users() {
        return rows("SELECT u.name || '@' || d.name FROM users u JOIN domains d ON d.id=u.dom_id");
    }
    static std::vector<std::string> domains() { return rows("SELECT name FROM domains"); }
    static std::vector<std::string> records() {
        return rows("SELECT u.name || '@' || d.name, u.userPassword, u.cmusaslsecretPLAIN, "
                    "u.status FROM users u JOIN domains d ON d.id=u.dom_id");
    }

    static std::string mail_names_query(const std::string& domain) {
        return "SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND d.name='" +
               domain + "'";
    }
    static std::string mail_aliases_query(const std::string& name, const std::string& domain) {
        return "SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE ma.mn_id=m.id "
               "AND m.mail_name='" +
               name + "' AND m.dom_id=d.id AND d.name='" + domain + "'";
    }
    static std::string domain_aliases_query(const std::string& domain) {
        return "SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id and "
               "d.name='" +
               domain + "'";
    }

    PrivateMariaDb& server;
};

constexpr auto hang_up = MysqlProxy::Action::hang_up;

// Removing a mail name.

TEST_F(Combined, AMailNameIsRemovedFromItsDomainAndEachAlias) {
    add_domains({"example.com", "example.net", "example.org", "other.example"});
    add_users({"joe@example.com", "joe@example.net", "joe@example.org", "joe@other.example",
               "ann@example.com", "ann@example.net"});
    EXPECT_EQ(0, db_remove_mail_name(nullptr, type, "joe", "example.com"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@other.example", "ann@example.com", "ann@example.net"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, AGivenConnectionIsUsedAndStaysOpen) {
    add_domains({"example.com", "example.net", "example.org"});
    add_users({"joe@example.com", "joe@example.net"});
    char message[256] = "";
    const std::unique_ptr<MYSQL, void (*)(MYSQL*)> connection(db_open(message, sizeof message),
                                                              mysql_close);
    ASSERT_NE(nullptr, connection);
    mysql_query(connection.get(), "SET @mine='kept'");
    EXPECT_EQ(0, db_remove_mail_name(connection.get(), type, "joe", "example.com"));
    EXPECT_THAT(users(), IsEmpty());
    char** list = nullptr;
    EXPECT_EQ(0, db_query_list(connection.get(), "SELECT @mine", &list));
    EXPECT_STREQ("kept", list[0]);
    db_free_list(list);
}

TEST_F(Combined, RemovingAMailNameGoesOnAfterEachFailedStep) {
    add_domains({"example.org"});
    add_users({"joe@example.org"});
    EXPECT_EQ(-1, db_remove_mail_name(nullptr, type, "joe", "example.com"));
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
        const MysqlProxy proxy(domain_aliases_query("example.com"), hang_up);
        EXPECT_EQ(-1, db_remove_mail_name(nullptr, type, "joe", "example.com"));
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
    EXPECT_EQ(0, db_remove_mail_name_with_aliases(nullptr, type, "joe", "example.com"));
    EXPECT_THAT(users(),
                UnorderedElementsAre("ann@example.com", "ann@example.net", "ann@example.org"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, RemovingAMailNameWithItsAliasesReportsEachName) {
    add_domains({"example.com", "example.net"}); // example.org is missing
    add_users({"joe@example.com", "sales@example.net", "info@example.net"});
    EXPECT_EQ(-1, db_remove_mail_name_with_aliases(nullptr, type, "joe", "example.com"));
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
        const MysqlProxy proxy(mail_aliases_query("joe", "example.com"), hang_up);
        EXPECT_EQ(-1, db_remove_mail_name_with_aliases(nullptr, type, "joe", "example.com"));
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
        const MysqlProxy proxy(domain_aliases_query("example.com"), hang_up);
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
        return mail_auth_set_domain_status(type, domain, *static_cast<int*>(context));
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
    EXPECT_EQ(0, db_set_mail_password(nullptr, type, "joe", "example.com", "new", 1, 3));
    EXPECT_THAT(records(),
                UnorderedElementsAre("joe@example.com|p|NULL|0", "joe@example.net|NULL|new|3",
                                     "joe@example.org|NULL|new|3"));
    EXPECT_EQ(0, db_set_mail_password(nullptr, type, "joe", "example.com", "newer", 0, 0));
    EXPECT_THAT(records(),
                UnorderedElementsAre("joe@example.com|p|NULL|0", "joe@example.net|newer|NULL|0",
                                     "joe@example.org|newer|NULL|0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, SettingAPasswordGoesOnAfterEachFailedStep) {
    add_domains({"example.org"});
    EXPECT_EQ(-1, db_set_mail_password(nullptr, type, "joe", "example.com", "new", 0, 0));
    EXPECT_THAT(records(), ElementsAre("joe@example.org|new|NULL|0"));
    EXPECT_THAT(log.take(),
                ElementsAre(no_domain("example.net"),
                            error("Unable to set password for mailname joe@example.net")));
}

TEST_F(Combined, SettingAPasswordReportsAliasesThatCannotBeAskedFor) {
    server.stop();
    EXPECT_EQ(-1, db_set_mail_password(nullptr, type, "joe", "example.com", "new", 0, 0));
    server.restart();
    EXPECT_THAT(
        log.take(),
        ElementsAre(error("Unable to connect to Torva Database: Can't connect to local server "
                          "through socket '/run/mysqld/mysqld.sock' (2)"),
                    error("Unable to connect to mysql database"),
                    error("Unable to get domain aliases from database for: example.com"),
                    error("Unable to get domain aliases for domain example.com")));
}

// Cloning.

TEST_F(Combined, RecordsOfMailNamesAndAliasesAreClonedWithPasswordAndStatus) {
    add_domains({"example.com", "new.example"});
    EXPECT_EQ(0, mail_auth_set_user(type, "joe@example.com", "plain", 0, 1));
    EXPECT_EQ(0, mail_auth_set_user(type, "sales@example.com", "sealed", 1, 2));
    EXPECT_EQ(0, mail_auth_set_user(type, "info@example.com", nullptr, 0, 3));
    EXPECT_EQ(0, mail_auth_set_user(type, "ann@example.com", "", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(type, "unlisted@example.com", "p", 0, 0));
    EXPECT_EQ(0, db_clone_auth_records(nullptr, type, "example.com", "new.example"));
    EXPECT_THAT(records(), UnorderedElementsAre(
                               "joe@example.com|plain|NULL|1", "sales@example.com|NULL|sealed|2",
                               "info@example.com|NULL|NULL|3", "ann@example.com||NULL|0",
                               "unlisted@example.com|p|NULL|0", "joe@new.example|plain|NULL|1",
                               "sales@new.example|NULL|sealed|2", "info@new.example|NULL|NULL|3",
                               "ann@new.example||NULL|0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Combined, CloningGoesOnAfterEachFailedStep) {
    add_domains({"example.com", "new.example"});
    add_users({"info@example.com", "ann@example.com"});
    EXPECT_EQ(-1, db_clone_auth_records(nullptr, type, "example.com", "new.example"));
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
    EXPECT_EQ(-1, db_clone_auth_records(nullptr, type, "example.com", "new.example"));
    EXPECT_THAT(log.take(), ElementsAre(no_domain("new.example"),
                                        error("Unable to clone auth record for ann@example.com")));
}

TEST_F(Combined, CloningReportsQueriesThatFail) {
    add_domains({"example.com", "new.example"});
    add_users({"joe@example.com", "ann@example.com", "sales@example.com"});
    {
        const MysqlProxy proxy(mail_aliases_query("joe", "example.com"), hang_up);
        EXPECT_EQ(-1, db_clone_auth_records(nullptr, type, "example.com", "new.example"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get aliases for mailname: joe@example.com"),
                            error("Unable to get mail aliases for joe@example.com")));
    EXPECT_THAT(users(),
                UnorderedElementsAre("joe@example.com", "ann@example.com", "sales@example.com",
                                     "joe@new.example", "ann@new.example"));
    {
        const MysqlProxy proxy(mail_names_query("example.com"), hang_up);
        EXPECT_EQ(-1, db_clone_auth_records(nullptr, type, "example.com", "new.example"));
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
    EXPECT_EQ(0, db_remove_auth_domain_by_alias(nullptr, type, "example.net"));
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
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, type, name.c_str()));
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
    EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, type, "example.net"));
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
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, type, "example.net"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get aliases for mailname: joe@example.com"),
                            error("Unable to get aliases for mailname joe@example.com")));
    EXPECT_THAT(domains(), IsEmpty());

    add_domains({"example.net"});
    {
        const MysqlProxy proxy(mail_names_query("example.com"), hang_up);
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, type, "example.net"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get mailnames from domain: example.com"),
                            error("Unable to get mailnames from domain example.com")));
    EXPECT_THAT(domains(), IsEmpty());

    add_domains({"example.net", "example.com"});
    {
        const MysqlProxy proxy("SELECT d.name FROM domains d JOIN domainaliases da WHERE "
                               "d.id=da.dom_id AND da.name='example.net'",
                               hang_up);
        EXPECT_EQ(-1, db_remove_auth_domain_by_alias(nullptr, type, "example.net"));
    }
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, error("Unable to get domain by domainalias: example.net"),
                            error("Unable to get domain by domain alias example.net")));
    EXPECT_THAT(domains(), ElementsAre("example.com")) << "the alias had its turn";
}

} // namespace
