#include "torva/maildb/AuthDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sqlite3.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* all_users =
    "SELECT u.name, d.name, u.userPassword, u.cmusaslsecretPLAIN, u.status FROM users u JOIN "
    "domains d ON d.id=u.dom_id ORDER BY u.name, d.name";

std::string text(const char* value) {
    return value == nullptr ? "NULL" : value;
}

/// A record as "name|password|encrypted|status|domain status", freed.
std::string taken(mail_auth_user& user) {
    std::string result = text(user.name) + "|" + text(user.password) + "|" +
                         text(user.encrypted_password) + "|" + std::to_string(user.status) + "|" +
                         std::to_string(user.domain_status);
    mail_auth_free_user(&user);
    return result;
}

class MailAuth : public AuthDatabase {
protected:
    static std::string read(const std::string& address) {
        mail_auth_user user;
        return mail_auth_read_user(postfix_type, address.c_str(), &user) == 0 ? taken(user)
                                                                              : "failed";
    }
    static std::string lookup(const std::string& address) {
        mail_auth_user user;
        return mail_auth_lookup(postfix_type, address.c_str(), &user) == 0 ? taken(user) : "failed";
    }
    static std::vector<std::string> list() {
        mail_auth_user* users = nullptr;
        size_t count = 99;
        EXPECT_EQ(0, mail_auth_list(postfix_type, &users, &count));
        std::vector<std::string> result;
        for (mail_auth_user* user = users; user->name != nullptr; ++user) {
            result.push_back(text(user->name) + "|" + text(user->password) + "|" +
                             text(user->encrypted_password) + "|" + std::to_string(user->status) +
                             "|" + std::to_string(user->domain_status));
        }
        EXPECT_EQ(result.size(), count);
        mail_auth_free_list(users);
        return result;
    }
};

// Domains.

TEST_F(MailAuth, ADomainIsAddedAndFound) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.net", 7));
    long long id = -1;
    int status = -1;
    EXPECT_EQ(0, mail_auth_find_domain(postfix_type, "example.net", &id, &status));
    EXPECT_EQ(2, id);
    EXPECT_EQ(7, status);
    EXPECT_EQ(0, mail_auth_find_domain(postfix_type, "example.com", &id, nullptr));
    EXPECT_EQ(1, id);
    EXPECT_EQ(0, mail_auth_find_domain(postfix_type, "example.com", nullptr, nullptr));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MailAuth, ADomainIsAddedOnce) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(-1, mail_auth_add_domain(postfix_type, "example.com", 1));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, "Unable to execute the mail authorization registration "
                                       "query: UNIQUE constraint failed: domains.name")));
    EXPECT_THAT(rows("SELECT name, status FROM domains"), ElementsAre("example.com|0"));
}

TEST_F(MailAuth, ADomainThatIsNotThereIsReported) {
    long long id = -5;
    int status = -5;
    EXPECT_EQ(-1, mail_auth_find_domain(postfix_type, "example.com", &id, &status));
    EXPECT_EQ(-1, mail_auth_find_domain(postfix_type, "example.com", &id, nullptr));
    EXPECT_EQ(-5, id);
    EXPECT_EQ(-5, status);
    const LogLine missing(3, "No such domain 'example.com' in the mail authentication DB");
    EXPECT_THAT(log.take(), ElementsAre(missing, missing));
}

TEST_F(MailAuth, DeletingADomainRemovesAllItsUsers) {
    for (const char* domain : {"example.com", "example.net"}) {
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, domain, 0));
        for (const char* name : {"joe@", "ann@"}) {
            const std::string address = std::string(name) + domain;
            EXPECT_EQ(0, mail_auth_set_user(postfix_type, address.c_str(), "p", 0, 0));
        }
    }
    EXPECT_EQ(0, mail_auth_delete_domain(postfix_type, "example.com"));
    EXPECT_THAT(rows("SELECT name FROM domains"), ElementsAre("example.net"));
    EXPECT_THAT(rows(all_users),
                ElementsAre("ann|example.net|p|NULL|0", "joe|example.net|p|NULL|0"));
}

TEST_F(MailAuth, ARenamedDomainKeepsItsUsers) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "old.example", 3));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@old.example", "p", 0, 0));
    EXPECT_EQ(0, mail_auth_rename_domain(postfix_type, "old.example", "new.example"));
    EXPECT_EQ("joe|p|NULL|0|-1", read("joe@new.example"));
    EXPECT_EQ("joe@new.example|p|NULL|0|3", lookup("joe@new.example"));
    EXPECT_THAT(rows("SELECT name FROM domains"), ElementsAre("new.example"));
}

TEST_F(MailAuth, ADomainIsNotRenamedToOneThatExists) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "a.example", 0));
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "b.example", 0));
    EXPECT_EQ(-1, mail_auth_rename_domain(postfix_type, "a.example", "b.example"));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, "Unable to execute the mail domain authorization rename "
                                       "query: UNIQUE constraint failed: domains.name")));
    EXPECT_THAT(rows("SELECT name FROM domains ORDER BY id"),
                ElementsAre("a.example", "b.example"));
}

TEST_F(MailAuth, TheStatusOfADomainIsChanged) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_domain_status(postfix_type, "example.com", -2));
    EXPECT_THAT(rows("SELECT name, status FROM domains"), ElementsAre("example.com|-2"));
}

TEST_F(MailAuth, ChangingNoDomainIsSuccess) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_delete_domain(postfix_type, "absent.example"));
    EXPECT_EQ(0, mail_auth_rename_domain(postfix_type, "absent.example", "new.example"));
    EXPECT_EQ(0, mail_auth_set_domain_status(postfix_type, "absent.example", 1));
    EXPECT_THAT(rows("SELECT name, status FROM domains"), ElementsAre("example.com|0"));
    EXPECT_THAT(log.take(), IsEmpty());
}

// Users.

TEST_F(MailAuth, APasswordIsKeptInOneOfTwoColumns) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 4));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "plain@example.com", "pa55phrase", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "sealed@example.com", "$1$sealed", 1, 5));
    EXPECT_THAT(rows(all_users), ElementsAre("plain|example.com|pa55phrase|NULL|0",
                                             "sealed|example.com|NULL|$1$sealed|5"));
    EXPECT_EQ("plain|pa55phrase|NULL|0|-1", read("plain@example.com"));
    EXPECT_EQ("sealed|NULL|$1$sealed|5|-1", read("sealed@example.com"));
    EXPECT_EQ("plain@example.com|pa55phrase|NULL|0|4", lookup("plain@example.com"));
    EXPECT_EQ("sealed@example.com|NULL|$1$sealed|5|4", lookup("sealed@example.com"));
}

TEST_F(MailAuth, ReplacingAUserClearsTheOtherPasswordColumn) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "plain", 0, 1));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "sealed", 1, 2));
    EXPECT_THAT(rows(all_users), ElementsAre("joe|example.com|NULL|sealed|2"));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "plain", 0, 3));
    EXPECT_THAT(rows(all_users), ElementsAre("joe|example.com|plain|NULL|3"));
}

TEST_F(MailAuth, OneNameAtTwoDomainsIsTwoUsers) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "a.example", 0));
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "b.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@a.example", "pa", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@b.example", "pb", 0, 0));
    EXPECT_EQ("joe|pa|NULL|0|-1", read("joe@a.example"));
    EXPECT_EQ(0, mail_auth_delete_user(postfix_type, "joe@a.example"));
    EXPECT_EQ("joe|pb|NULL|0|-1", read("joe@b.example"));
}

TEST_F(MailAuth, InsertingAUserForADomainThatDoesNotExistIsRolledBackByTheTrigger) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    // The domain goes in the moment between its look-up and the insertion.
    const OpenHook hook([](sqlite3* handle) {
        sqlite3_exec(handle,
                     "CREATE TEMP TRIGGER race BEFORE INSERT ON users BEGIN DELETE FROM domains; "
                     "END",
                     nullptr, nullptr, nullptr);
    });
    EXPECT_EQ(-1, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, "Unable to execute the user registration query: insert on "
                                       "table \"users\" violates foreign key constraint "
                                       "\"fk_domains_id\"")));
    EXPECT_THAT(rows("SELECT name FROM users"), IsEmpty());
    EXPECT_THAT(rows("SELECT name FROM domains"), ElementsAre("example.com"))
        << "the whole statement is rolled back";
}

TEST_F(MailAuth, TheTriggersGuardTheDomainIds) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
    const struct {
        const char* statement;
        const char* message;
    } cases[] = {
        {"INSERT INTO users (dom_id, name) VALUES (99, 'ann')",
         "insert on table \"users\" violates foreign key constraint \"fk_domains_id\""},
        {"UPDATE users SET dom_id=99",
         "update on table \"users\" violates foreign key constraint \"fk_domains_id\""},
    };
    for (const auto& test : cases) {
        try {
            run(test.statement);
            ADD_FAILURE() << test.statement;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(test.message, error.what());
        }
    }
}

TEST_F(MailAuth, AUserIsRenamed) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 2));
    EXPECT_EQ(0, mail_auth_rename_user(postfix_type, "joe@example.com", "joseph"));
    EXPECT_THAT(rows(all_users), ElementsAre("joseph|example.com|p|NULL|2"));
}

TEST_F(MailAuth, AUserIsNotRenamedToOneThatExists) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "ann@example.com", "q", 0, 0));
    EXPECT_EQ(-1, mail_auth_rename_user(postfix_type, "joe@example.com", "ann"));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, "Unable to execute the user rename query: UNIQUE constraint "
                                       "failed: users.name, users.dom_id")));
}

TEST_F(MailAuth, AUserIsNotRenamedToWhatIsNoLocalPart) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
    EXPECT_EQ(-1, mail_auth_rename_user(postfix_type, "joe@example.com", ""));
    EXPECT_EQ(-1, mail_auth_rename_user(postfix_type, "joe@example.com", "a@b"));
    EXPECT_THAT(log.take(), ElementsAre(LogLine(3, "Invalid mail address ''"),
                                        LogLine(3, "Invalid mail address 'a@b'")));
    EXPECT_EQ("joe|p|NULL|0|-1", read("joe@example.com"));
}

TEST_F(MailAuth, ChangingNoUserIsSuccess) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_rename_user(postfix_type, "absent@example.com", "new"));
    EXPECT_EQ(0, mail_auth_delete_user(postfix_type, "absent@example.com"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MailAuth, AUserThatIsNotThereIsReported) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ("failed", read("joe@example.com"));
    EXPECT_EQ("failed", lookup("joe@example.com"));
    const LogLine missing(3, "No such user 'joe@example.com' in mail authorization database");
    EXPECT_THAT(log.take(), ElementsAre(missing, missing));
}

using UserOperation = std::function<int(const char* address)>;

const std::vector<std::pair<const char*, UserOperation>>& user_operations() {
    static const std::vector<std::pair<const char*, UserOperation>> operations = {
        {"set", [](const char* a) { return mail_auth_set_user(postfix_type, a, "p", 0, 0); }},
        {"read",
         [](const char* a) {
             mail_auth_user user;
             return mail_auth_read_user(postfix_type, a, &user);
         }},
        {"rename", [](const char* a) { return mail_auth_rename_user(postfix_type, a, "new"); }},
        {"delete", [](const char* a) { return mail_auth_delete_user(postfix_type, a); }},
        {"lookup",
         [](const char* a) {
             mail_auth_user user;
             return mail_auth_lookup(postfix_type, a, &user);
         }},
    };
    return operations;
}

TEST_F(MailAuth, EveryUserOperationReportsAMissingDomain) {
    for (const auto& [name, operation] : user_operations()) {
        EXPECT_EQ(-1, operation("joe@absent.example")) << name;
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(3, "No such domain 'absent.example' in the mail "
                                           "authentication DB")))
            << name;
    }
}

TEST_F(MailAuth, EveryUserOperationReportsAnInvalidAddress) {
    for (const auto& [name, operation] : user_operations()) {
        for (const std::string address : {"joe", "@example.com", "joe@", ""}) {
            EXPECT_EQ(-1, operation(address.c_str())) << name;
            EXPECT_THAT(log.take(),
                        ElementsAre(LogLine(3, "Invalid mail address '" + address + "'")))
                << name;
        }
    }
}

TEST_F(MailAuth, AnAddressIsSplitAtItsFirstSign) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "b@example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "a@b@example.com", "p", 0, 0));
    EXPECT_THAT(rows(all_users), ElementsAre("a|b@example.com|p|NULL|0"));
}

TEST_F(MailAuth, NoPasswordIsStoredAsNone) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", nullptr, 0, 0));
    EXPECT_EQ("joe|NULL|NULL|0|-1", read("joe@example.com"));
}

TEST_F(MailAuth, AFailureLeavesTheRecordEmpty) {
    mail_auth_user user{};
    user.status = 17;
    EXPECT_EQ(-1, mail_auth_read_user(postfix_type, "joe@example.com", &user));
    EXPECT_EQ("NULL|NULL|NULL|0|0", taken(user));
    user.status = 17;
    EXPECT_EQ(-1, mail_auth_lookup(postfix_type, "joe", &user));
    EXPECT_EQ("NULL|NULL|NULL|0|0", taken(user));
}

TEST_F(MailAuth, NothingToFreeIsAllowed) {
    mail_auth_free_user(nullptr);
    mail_auth_free_list(nullptr);
    mail_auth_user user{};
    mail_auth_free_user(&user);
    mail_auth_free_user(&user);
}

// The list.

TEST_F(MailAuth, TheListHasEveryUserWithItsPassword) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "a.example", 0));
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "b.example", 9));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@a.example", "p", 0, 1));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@b.example", "q", 1, 2));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "ann@b.example", "r", 0, 0));
    EXPECT_THAT(list(), UnorderedElementsAre("joe@a.example|p|NULL|1|0", "joe@b.example|NULL|q|2|9",
                                             "ann@b.example|r|NULL|0|9"));
}

TEST_F(MailAuth, TheListOfAnEmptyDatabaseIsEmpty) {
    EXPECT_THAT(list(), IsEmpty());
    mail_auth_user* users = nullptr;
    EXPECT_EQ(0, mail_auth_list(postfix_type, &users, nullptr));
    ASSERT_NE(nullptr, users);
    EXPECT_EQ(nullptr, users[0].name);
    mail_auth_free_list(users);
}

TEST_F(MailAuth, TheListSkipsUsersWithoutAddressOrPassword) {
    run("INSERT INTO domains (id, name) VALUES (1, 'example.com'), (2, NULL);"
        "INSERT INTO users (dom_id, name, userPassword, cmusaslsecretPLAIN) VALUES "
        "(1, 'neither', NULL, NULL), (1, 'both-empty', '', ''), (2, 'nowhere', 'p', NULL), "
        "(1, 'good', 'p', ''), (1, 'both', 'p', 'q')");
    EXPECT_THAT(list(),
                UnorderedElementsAre("good@example.com|p||0|0", "both@example.com|p|q|0|0"));
    EXPECT_THAT(log.take(),
                UnorderedElementsAre(
                    LogLine(6, "NULL or empty mail address stored in the database, skipped"),
                    LogLine(6, "empty password properties (both plain and encrypted) for user "
                               "neither@example.com, skipped"),
                    LogLine(6, "empty password properties (both plain and encrypted) for user "
                               "both-empty@example.com, skipped")));
}

TEST_F(MailAuth, AnEmptyAddressInTheListIsSkipped) {
    // No address of the schema's own tables can be empty: the "@" is always in it.
    run("DROP TABLE users; DROP TABLE domains;"
        "CREATE TABLE domains (id, name, status); INSERT INTO domains VALUES (1, NULL, 0);"
        "CREATE TABLE users (dom_id, name, userPassword, cmusaslsecretPLAIN, status);"
        "INSERT INTO users VALUES (1, 'joe', 'p', NULL, 0)");
    EXPECT_THAT(list(), IsEmpty());
    EXPECT_THAT(log.take(), ElementsAre(LogLine(6, "NULL or empty mail address stored in the "
                                                   "database, skipped")));
}

TEST_F(MailAuth, AListThatBreaksOffIsReportedAndGivesNone) {
    // The second row cannot be computed.
    run("DROP TABLE users; CREATE TABLE raw (dom_id, name, userPassword, n);"
        "INSERT INTO raw VALUES (1, 'joe', 'p', 1), (1, 'ann', 'p', -9223372036854775808);"
        "CREATE VIEW users AS SELECT dom_id, name, userPassword, NULL AS cmusaslsecretPLAIN, "
        "abs(n) AS status FROM raw; INSERT INTO domains (name) VALUES ('example.com')");
    mail_auth_user dummy{};
    mail_auth_user* users = &dummy;
    size_t count = 99;
    EXPECT_EQ(-1, mail_auth_list(postfix_type, &users, &count));
    EXPECT_EQ(nullptr, users);
    EXPECT_EQ(0U, count);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(3, "Unable to execute the users list selection query: integer "
                                       "overflow"),
                            LogLine(3, "Unable to get users list from MTA password database")));
}

} // namespace
