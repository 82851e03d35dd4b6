// The statements of each operation, and its messages when it fails.
#include "support/AllocationFaults.h"
#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sqlite3.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class MailAuthMessages : public AuthDatabase {};

using Operation = std::function<int()>;

struct OperationCase {
    const char* name;
    Operation operation;
    std::vector<std::string> statements;
    bool read_only;
};

const std::string find_statement = "SELECT id FROM domains WHERE name=?";
const std::string list_message = "Unable to get users list from MTA password database";

std::vector<OperationCase> operation_cases() {
    static mail_auth_user user;
    const auto released = [](int result) {
        mail_auth_free_user(&user);
        return result;
    };
    return {
        {"add domain",
         [] { return mail_auth_add_domain(postfix_type, "d.example", 0); },
         {"INSERT INTO domains (name, status) VALUES(?, ?)"},
         false},
        {"find domain",
         [] { return mail_auth_find_domain(postfix_type, "d.example", nullptr, nullptr); },
         {find_statement},
         true},
        {"find domain with status",
         [] {
             int status = 0;
             return mail_auth_find_domain(postfix_type, "d.example", nullptr, &status);
         },
         {"SELECT id, status FROM domains WHERE name=?"},
         true},
        {"set domain status",
         [] { return mail_auth_set_domain_status(postfix_type, "d.example", 1); },
         {"UPDATE domains SET status=? WHERE name=?"},
         false},
        {"set user, plain",
         [] { return mail_auth_set_user(postfix_type, "u@d.example", "pa55phrase", 0, 0); },
         {find_statement,
          "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES "
          "(?, ?, ?, ?)"},
         false},
        {"set user, encrypted",
         [] { return mail_auth_set_user(postfix_type, "u@d.example", "pa55phrase", 1, 0); },
         {find_statement, "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id) "
                          "VALUES (?, ?, ?, ?)"},
         false},
        {"read user",
         [=] { return released(mail_auth_read_user(postfix_type, "u@d.example", &user)); },
         {find_statement, "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE "
                          "dom_id=? AND name=?"},
         true},
        {"lookup",
         [=] { return released(mail_auth_lookup(postfix_type, "u@d.example", &user)); },
         {"SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS "
          "userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = "
          "d.id AND u.name=? AND d.name=?"},
         true},
        {"list",
         [] {
             mail_auth_user* users = nullptr;
             const int result = mail_auth_list(postfix_type, &users, nullptr);
             mail_auth_free_list(users);
             return result;
         },
         {"SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS password, "
          "u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, d.status AS "
          "domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id"},
         true},
        {"rename user",
         [] { return mail_auth_rename_user(postfix_type, "u@d.example", "v"); },
         {find_statement, "UPDATE users SET name=? WHERE name=? AND dom_id=?"},
         false},
        {"delete user",
         [] { return mail_auth_delete_user(postfix_type, "v@d.example"); },
         {find_statement, "DELETE FROM users WHERE name=? AND dom_id=?"},
         false},
        {"rename domain",
         [] { return mail_auth_rename_domain(postfix_type, "d.example", "e.example"); },
         {"UPDATE domains SET name=? WHERE name=?"},
         false},
        {"delete domain",
         [] { return mail_auth_delete_domain(postfix_type, "e.example"); },
         {"DELETE FROM domains WHERE name=?"},
         false},
    };
}

/// The messages of an operation, but for the last line of the list.
std::vector<LogLine> own(std::vector<LogLine> lines) {
    if (!lines.empty() && lines.back() == LogLine(3, list_message)) {
        lines.pop_back();
    }
    return lines;
}

TEST_F(MailAuthMessages, EachOperationRunsItsStatementsAlone) {
    for (const OperationCase& test : operation_cases()) {
        StatementTrace trace;
        EXPECT_EQ(0, test.operation()) << test.name;
        EXPECT_EQ(test.statements, trace.take()) << test.name;
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MailAuthMessages, OnlyQueriesOpenTheDatabaseReadOnly) {
    for (const OperationCase& test : operation_cases()) {
        bool read_only = !test.read_only;
        const OpenHook hook(
            [&](sqlite3* handle) { read_only = sqlite3_db_readonly(handle, "main"); });
        EXPECT_EQ(0, test.operation()) << test.name;
        EXPECT_EQ(test.read_only, read_only) << test.name;
    }
}

TEST_F(MailAuthMessages, EachOperationClosesTheDatabase) {
    const std::size_t before = descriptor_count();
    for (int turn = 0; turn < 2; ++turn) { // the second time some of them fail
        for (const OperationCase& test : operation_cases()) {
            test.operation();
            EXPECT_EQ(before, descriptor_count()) << test.name;
        }
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
        EXPECT_EQ(before, descriptor_count());
    }
}

TEST_F(MailAuthMessages, AMissingDatabaseIsReportedAndNotMade) {
    std::filesystem::remove(auth_path);
    for (const OperationCase& test : operation_cases()) {
        EXPECT_EQ(-1, test.operation()) << test.name;
        EXPECT_THAT(own(log.take()),
                    ElementsAre(LogLine(3, std::string("Unable to open database") +
                                               (test.read_only ? "(readonly) " : " ") + auth_path +
                                               ": unable to open database file")))
            << test.name;
        EXPECT_FALSE(std::filesystem::exists(auth_path)) << test.name;
    }
}

TEST_F(MailAuthMessages, WhatIsNoDatabaseIsReportedAndLeftAsItIs) {
    const std::string garbage(4096, 'g');
    write_file(auth_path, garbage);
    for (const OperationCase& test : operation_cases()) {
        EXPECT_EQ(-1, test.operation()) << test.name;
        EXPECT_THAT(own(log.take()),
                    ElementsAre(LogLine(3, "Unable to prepare SQL statement for query '" +
                                               test.statements[0] + "': file is not a database")))
            << test.name;
        EXPECT_EQ(garbage, read_file(auth_path)) << test.name;
    }
}

TEST_F(MailAuthMessages, AStatementThatCannotBePreparedIsReported) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    run("DROP TABLE users");
    for (const OperationCase& test : operation_cases()) {
        if (test.statements.back().find("users") == std::string::npos) {
            continue;
        }
        EXPECT_EQ(-1, test.operation()) << test.name;
        EXPECT_THAT(own(log.take()),
                    ElementsAre(LogLine(3, "Unable to prepare SQL statement for query '" +
                                               test.statements.back() + "': no such table: users")))
            << test.name;
    }
}

TEST_F(MailAuthMessages, EachNameThatCannotBeBoundIsNamed) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d", 0));
    const std::string big(3000, 'x');
    const std::string at_big = "u@" + big;
    const std::string big_at = big + "@d";
    mail_auth_user user;
    const std::string to = " to SQL statement for query '";
    const std::string too_big = "': string or blob too big";
    const std::string insert = "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) "
                               "VALUES (?, ?, ?, ?)";
    const std::string sealed = "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, "
                               "dom_id) VALUES (?, ?, ?, ?)";
    const std::string select = "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users "
                               "WHERE dom_id=? AND name=?";
    const std::string rename = "UPDATE users SET name=? WHERE name=? AND dom_id=?";
    const std::string lookup_query =
        "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS "
        "userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = "
        "d.id AND u.name=? AND d.name=?";
    const struct {
        const char* name;
        Operation operation;
        std::string message;
    } cases[] = {
        {"add domain", [&] { return mail_auth_add_domain(postfix_type, big.c_str(), 0); },
         "domain name '" + big + "'" + to + "INSERT INTO domains (name, status) VALUES(?, ?)"},
        {"find domain",
         [&] { return mail_auth_find_domain(postfix_type, big.c_str(), nullptr, nullptr); },
         "domain name '" + big + "'" + to + find_statement},
        {"delete domain", [&] { return mail_auth_delete_domain(postfix_type, big.c_str()); },
         "domain name '" + big + "'" + to + "DELETE FROM domains WHERE name=?"},
        {"rename domain, new",
         [&] { return mail_auth_rename_domain(postfix_type, "d", big.c_str()); },
         "new domain name '" + big + "'" + to + "UPDATE domains SET name=? WHERE name=?"},
        {"rename domain, old",
         [&] { return mail_auth_rename_domain(postfix_type, big.c_str(), "d"); },
         "old domain name '" + big + "'" + to + "UPDATE domains SET name=? WHERE name=?"},
        {"domain status", [&] { return mail_auth_set_domain_status(postfix_type, big.c_str(), 0); },
         "domain name '" + big + "'" + to + "UPDATE domains SET status=? WHERE name=?"},
        {"user's domain", [&] { return mail_auth_delete_user(postfix_type, at_big.c_str()); },
         "domain name '" + big + "'" + to + find_statement},
        {"set user", [&] { return mail_auth_set_user(postfix_type, big_at.c_str(), "p", 0, 0); },
         "user name '" + big + "'" + to + insert},
        {"plain password",
         [&] { return mail_auth_set_user(postfix_type, "u@d", big.c_str(), 0, 0); },
         "password" + to + insert},
        {"encrypted password",
         [&] { return mail_auth_set_user(postfix_type, "u@d", big.c_str(), 1, 0); },
         "password" + to + sealed},
        {"read user", [&] { return mail_auth_read_user(postfix_type, big_at.c_str(), &user); },
         "user name '" + big + "'" + to + select},
        {"rename user, new",
         [&] { return mail_auth_rename_user(postfix_type, "u@d", big.c_str()); },
         "new user name '" + big + "'" + to + rename},
        {"rename user, old",
         [&] { return mail_auth_rename_user(postfix_type, big_at.c_str(), "v"); },
         "user name '" + big + "'" + to + rename},
        {"delete user", [&] { return mail_auth_delete_user(postfix_type, big_at.c_str()); },
         "user name '" + big + "'" + to + "DELETE FROM users WHERE name=? AND dom_id=?"},
        {"lookup, name", [&] { return mail_auth_lookup(postfix_type, big_at.c_str(), &user); },
         "user name '" + big + "'" + to + lookup_query},
        {"lookup, domain", [&] { return mail_auth_lookup(postfix_type, at_big.c_str(), &user); },
         "domain name '" + big + "'" + to + lookup_query},
    };
    for (const auto& test : cases) {
        const OpenHook hook(
            [](sqlite3* handle) { sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, 2000); });
        EXPECT_EQ(-1, test.operation()) << test.name;
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(3, "Unable to bind parameter " + test.message + too_big)))
            << test.name;
    }
}

TEST_F(MailAuthMessages, EachChangeThatIsRefusedNamesItsPurpose) {
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "u@d.example", "p", 0, 0));
    for (const std::string table : {"domains", "users"}) {
        for (const std::string event : {"INSERT", "UPDATE", "DELETE"}) {
            run("CREATE TRIGGER refuse_" + event + "_" + table + " BEFORE " + event + " ON " +
                table + " BEGIN SELECT RAISE(ABORT, 'refused'); END");
        }
    }
    const struct {
        Operation operation;
        const char* purpose;
    } cases[] = {
        {[] { return mail_auth_add_domain(postfix_type, "new.example", 0); },
         "mail authorization registration"},
        {[] { return mail_auth_delete_domain(postfix_type, "d.example"); },
         "mail domain authorization removal"},
        {[] { return mail_auth_rename_domain(postfix_type, "d.example", "e.example"); },
         "mail domain authorization rename"},
        {[] { return mail_auth_set_domain_status(postfix_type, "d.example", 1); },
         "mail domain authorization status change"},
        {[] { return mail_auth_set_user(postfix_type, "u@d.example", "p", 0, 0); },
         "user registration"},
        {[] { return mail_auth_rename_user(postfix_type, "u@d.example", "v"); }, "user rename"},
        {[] { return mail_auth_delete_user(postfix_type, "u@d.example"); }, "user removal"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(-1, test.operation()) << test.purpose;
        EXPECT_THAT(log.take(), ElementsAre(LogLine(3, std::string("Unable to execute the ") +
                                                           test.purpose + " query: refused")));
    }
    EXPECT_THAT(rows("SELECT name, dom_id, userPassword FROM users"), ElementsAre("u|1|p"));
}

TEST_F(MailAuthMessages, EachQueryThatBreaksOffNamesItsPurpose) {
    mail_auth_user user;
    // A look-up of a name that overflows as soon as it is compared.
    run("DROP TABLE users; DROP TABLE domains; CREATE TABLE n (n); "
        "INSERT INTO n VALUES (-9223372036854775808);"
        "CREATE VIEW users AS SELECT 1 AS dom_id, 'u' AS name, 'p' AS userPassword, NULL AS "
        "cmusaslsecretPLAIN, abs(n) AS status FROM n;"
        "CREATE TABLE domains (id, name, status); INSERT INTO domains VALUES (1, 'd', 0)");
    EXPECT_EQ(-1, mail_auth_read_user(postfix_type, "u@d", &user));
    EXPECT_EQ(-1, mail_auth_lookup(postfix_type, "u@d", &user));
    run("DROP TABLE domains; CREATE VIEW domains AS SELECT abs(n) AS id, 'd' AS name, 0 AS status "
        "FROM n");
    EXPECT_EQ(-1, mail_auth_find_domain(postfix_type, "d", nullptr, nullptr));
    EXPECT_THAT(
        log.take(),
        ElementsAre(
            LogLine(3, "Unable to execute the user selection query: integer overflow"),
            LogLine(3, "Unable to execute the user authentication query: integer overflow"),
            LogLine(3, "Unable to execute the mail domain selection query: integer overflow")));
}

TEST_F(MailAuthMessages, NoMessageShowsAPassword) {
    for (const OperationCase& test : operation_cases()) {
        test.operation();
    }
    run("DROP TABLE users");
    for (const OperationCase& test : operation_cases()) {
        test.operation();
    }
    std::filesystem::remove(auth_path);
    for (const OperationCase& test : operation_cases()) {
        test.operation();
    }
    EXPECT_THAT(log.text(), HasSubstr("no such table"));
    EXPECT_THAT(log.text(), Not(HasSubstr("pa55phrase")));
}

TEST_F(MailAuthMessages, ADomainGetsNoEmptyName) {
    EXPECT_EQ(-1, mail_auth_add_domain(postfix_type, "", 0));
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
    EXPECT_EQ(-1, mail_auth_rename_domain(postfix_type, "example.com", ""));
    const LogLine invalid(3, "Invalid mail domain ''");
    EXPECT_THAT(log.take(), ElementsAre(invalid, invalid));
    EXPECT_THAT(rows("SELECT name FROM domains"), ElementsAre("example.com"));
}

TEST_F(MailAuthMessages, NamesThatDifferInCaseAreDifferentNames) {
    for (const char* domain : {"example.com", "Example.com"}) {
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, domain, 0));
    }
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
    EXPECT_EQ(0, mail_auth_set_user(postfix_type, "Joe@example.com", "q", 0, 0));
    EXPECT_EQ(0, mail_auth_delete_user(postfix_type, "JOE@example.com"));
    EXPECT_EQ(-1, mail_auth_find_domain(postfix_type, "EXAMPLE.com", nullptr, nullptr));
    EXPECT_THAT(rows("SELECT name, userPassword FROM users ORDER BY id"),
                ElementsAre("joe|p", "Joe|q"));
}

TEST_F(MailAuthMessages, FreedRecordsLeaveNoPasswordInMemory) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "d.example", 0));
    for (const int encrypted : {0, 1}) {
        EXPECT_EQ(0, mail_auth_set_user(postfix_type, "u@d.example", "pa55phrase", encrypted, 0));
        mail_auth_user user;
        ASSERT_EQ(0, mail_auth_read_user(postfix_type, "u@d.example", &user));
        mail_auth_user* users = nullptr;
        ASSERT_EQ(0, mail_auth_list(postfix_type, &users, nullptr));
        const FreedTexts freed("pa55phrase");
        mail_auth_free_user(&user);
        EXPECT_EQ(0, freed.count()) << encrypted;
        mail_auth_free_list(users);
        EXPECT_EQ(0, freed.count()) << encrypted;
        std::free(::strdup("pa55phrase"));
        EXPECT_EQ(1, freed.count()) << "it would have been seen";
    }
}

} // namespace
