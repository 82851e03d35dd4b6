#include "torva/maildb/panel_db_session.h"

#include "support/AllocationFaults.h"
#include "torva/maildb/MysqlProxy.h"
#include "torva/maildb/SessionFixture.h"
#include "torva/maildb/panel_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mysql.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* version_query = "SHOW VARIABLES LIKE 'version'";
constexpr const char* misc_query = "SELECT val FROM misc WHERE param='mysql41_compatible'";

TEST_F(PanelSession, AMissingPasswordFileIsReported) {
    std::filesystem::remove(PrivateMariaDb::shadow);
    const Opened opened = open_with(db_connect);
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to open admin password file: No such file or directory", opened.message);
}

TEST_F(PanelSession, AnUnreadablePasswordFileIsReported) {
    std::filesystem::remove(PrivateMariaDb::shadow);
    std::filesystem::create_directory(PrivateMariaDb::shadow);
    const Opened opened = open_with(db_connect);
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to read admin password file: Is a directory", opened.message);
}

TEST_F(PanelSession, AnEmptyPasswordFileIsNoSystemError) {
    write_shadow("");
    char message[512] = "";
    errno = EBADF; // left over from something else
    EXPECT_EQ(nullptr, db_connect(message, sizeof message));
    EXPECT_STREQ("Unable to read admin password file: Success", message);
}

TEST_F(PanelSession, AFirstLineWithoutLineFeedIsUsedWhole) {
    write_shadow(password());
    EXPECT_NE(nullptr, open_with(db_connect).connection);
}

TEST_F(PanelSession, OnlyTheFirstLineIsThePassword) {
    write_shadow(password() + "\nsecond line\n");
    EXPECT_NE(nullptr, open_with(db_connect).connection);
}

TEST_F(PanelSession, OnlyTheLineFeedIsRemoved) {
    write_shadow(password() + "\r\n");
    const Opened opened = open_with(db_connect);
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to connect to Torva Database: Access denied for user 'admin'@'localhost' "
              "(using password: YES)",
              opened.message);
}

TEST_F(PanelSession, AnEmptyFirstLineIsAnEmptyPassword) {
    write_shadow("\n" + password() + "\n");
    const Opened opened = open_with(db_connect);
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to connect to Torva Database: Access denied for user 'admin'@'localhost' "
              "(using password: NO)",
              opened.message);
}

TEST_F(PanelSession, ThePasswordIsCutAfter99Characters) {
    const std::string longest = std::string(98, 'p') + "q";
    server.run("ALTER USER admin@localhost IDENTIFIED BY '" + longest + "'");
    for (const char* rest : {"", "\n", "r", "r\n"}) {
        write_shadow(longest + rest);
        EXPECT_NE(nullptr, open_with(db_connect).connection) << "followed by '" << rest << "'";
    }
    write_shadow(longest.substr(1) + "\n");
    EXPECT_EQ(nullptr, open_with(db_connect).connection);
}

TEST_F(PanelSession, ThePasswordIsNotLeftOnTheStack) {
    const Connection connection(open_with(db_connect).connection);
    ASSERT_NE(nullptr, connection);
    const std::string stack = read_stack();
    const std::string wanted = password();
    EXPECT_EQ(std::string::npos, stack.find(wanted));
}

TEST_F(PanelSession, AServerThatIsNotThereIsReportedInTheClientsWords) {
    server.stop();
    const Opened opened = open_with(db_connect);
    server.restart();
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to connect to Torva Database: Can't connect to local server through socket "
              "'/run/mysqld/mysqld.sock' (2)",
              opened.message);
}

TEST_F(PanelSession, NoMemoryForTheClientsHandleIsReported) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    Opened opened;
    {
        const AllocationFaults faults(sizeof(MYSQL), sizeof(MYSQL));
        opened = open_with(db_connect);
    }
    EXPECT_EQ(nullptr, opened.connection);
    EXPECT_EQ("Unable to initialize MySQL connection structure: Cannot allocate memory",
              opened.message);
    EXPECT_EQ(ENOMEM, opened.error);
}

TEST_F(PanelSession, TheClientsConfigurationFilesAreNotRead) {
    const std::string before = read_file("/etc/mysql/my.cnf");
    write_file("/etc/mysql/my.cnf", "[client]\nsocket=/nonexistent\nuser=nobody\npassword=no\n");
    const Opened opened = open_with(db_connect);
    write_file("/etc/mysql/my.cnf", before);
    EXPECT_NE(nullptr, opened.connection) << opened.message;
}

TEST_F(PanelSession, TheConnectionIsNotInheritedByPrograms) {
    const Opened opened = open_with(db_connect);
    ASSERT_NE(nullptr, opened.connection);
    EXPECT_TRUE(is_close_on_exec(mysql_get_socket(opened.connection.get())));
}

TEST_F(PanelSession, AMessageIsCutToTheBuffer) {
    std::filesystem::remove(PrivateMariaDb::shadow);
    char message[] = "0123456789";
    EXPECT_EQ(nullptr, db_connect(message, 8));
    EXPECT_EQ(std::string("Unable \0"
                          "89",
                          10),
              std::string(message, 10));
    EXPECT_EQ(nullptr, db_connect(nullptr, 0));
}

TEST_F(PanelSession, AFailureLeavesNoDescriptor) {
    const std::size_t before = descriptor_count();
    write_shadow("wrong\n");
    open_with(db_open);
    write_shadow("");
    open_with(db_open);
    write_shadow(password() + "\n");
    server.run("RENAME TABLE misc TO elsewhere");
    EXPECT_EQ(nullptr, open_with(db_open).connection);
    server.run("RENAME TABLE elsewhere TO misc");
    EXPECT_EQ(before, descriptor_count());
}

TEST_F(PanelSession, NoMessageShowsThePassword) {
    write_shadow("wrong-secret\n");
    char** list = nullptr;
    EXPECT_EQ(-1, db_get_mail_names(nullptr, "example.com", &list));
    EXPECT_THAT(log.text(), HasSubstr("Access denied"));
    EXPECT_THAT(log.text(), Not(HasSubstr("secret")));
}

// Version and character set.

TEST_F(PanelSession, Version4_0_27GetsNoSetNamesAndTheFlag0) {
    server.run("INSERT INTO misc VALUES ('mysql41_compatible', 'true')");
    restart_as("4.0.27-x");
    db_utf8_compatible = 1;
    const Opened opened = open_with(db_open);
    EXPECT_NE(nullptr, opened.connection);
    EXPECT_EQ("", opened.message);
    EXPECT_EQ(0, db_utf8_compatible);
    EXPECT_THAT(sent(), ElementsAre("set foreign_key_checks=0", version_query));
}

TEST_F(PanelSession, Version3GetsNoSetNamesAndTheFlag0) {
    restart_as("3.23.58");
    db_utf8_compatible = 1;
    EXPECT_NE(nullptr, open_with(db_open).connection);
    EXPECT_EQ(0, db_utf8_compatible);
    EXPECT_THAT(sent(), ElementsAre("set foreign_key_checks=0", version_query));
}

TEST_F(PanelSession, Version4_1AndVersion30AreNotOld) {
    for (const char* version : {"4.1.22", "30.1.2"}) {
        restart_as(version);
        EXPECT_NE(nullptr, open_with(db_open).connection);
        EXPECT_THAT(sent(), ElementsAre("set foreign_key_checks=0", version_query, misc_query,
                                        "SET NAMES binary"))
            << version;
    }
}

TEST_F(PanelSession, Version5_0_45ChoosesTheCharacterSetByTheMiscValue) {
    const struct {
        const char* name;
        const char* statement;
        int flag;
    } cases[] = {
        {"no row", "DELETE FROM misc", 0},
        {"null", "REPLACE INTO misc VALUES ('mysql41_compatible', NULL)", 0},
        {"empty", "REPLACE INTO misc VALUES ('mysql41_compatible', '')", 0},
        {"false", "REPLACE INTO misc VALUES ('mysql41_compatible', 'false')", 0},
        {"true", "REPLACE INTO misc VALUES ('mysql41_compatible', 'true')", 1},
        {"False", "REPLACE INTO misc VALUES ('mysql41_compatible', 'False')", 1},
        {"falsely", "REPLACE INTO misc VALUES ('mysql41_compatible', 'falsely')", 1},
        {"0", "REPLACE INTO misc VALUES ('mysql41_compatible', '0')", 1},
        {"other row",
         "REPLACE INTO misc VALUES ('other', 'true'); "
         "DELETE FROM misc WHERE param='mysql41_compatible'",
         0},
    };
    restart_as("5.0.45-log");
    for (const auto& test : cases) {
        server.run(test.statement);
        db_utf8_compatible = 1 - test.flag;
        EXPECT_NE(nullptr, open_with(db_open).connection) << test.name;
        EXPECT_EQ(test.flag, db_utf8_compatible) << test.name;
        EXPECT_THAT(sent(), ElementsAre("set foreign_key_checks=0", version_query, misc_query,
                                        test.flag == 1 ? "SET NAMES utf8" : "SET NAMES binary"))
            << test.name;
    }
}

// Failed steps.

TEST_F(PanelSession, TheOutcomeOfTheForeignKeyStatementIsIgnored) {
    const MysqlProxy proxy("set foreign_key_checks=0", MysqlProxy::Action::replace,
                           "set nothing_of_this_kind=0");
    const Opened opened = open_with(db_open);
    EXPECT_NE(nullptr, opened.connection);
    EXPECT_EQ("", opened.message);
}

TEST_F(PanelSession, EachStepThatFailsInTheClientIsNamedAndGivesNoConnection) {
    using Action = MysqlProxy::Action;
    const std::string lost = " 2013: Lost connection to server during query";
    const struct {
        const char* query;
        Action action;
        std::string replacement;
        std::string message;
    } cases[] = {
        {version_query, Action::hang_up, "", "DB error (query version)" + lost},
        {version_query, Action::cut_reply, "", "DB error (store query result)" + lost},
        {misc_query, Action::hang_up, "", "DB error (mysql41 compatible query)" + lost},
        {misc_query, Action::cut_reply, "", "DB error (store query result)" + lost},
        {misc_query, Action::replace, "SELECT val FROM nowhere",
         "DB error (mysql41 compatible query) 1146: Table 'kra.nowhere' doesn't exist"},
        {"SET NAMES binary", Action::hang_up, "", "DB error (set names query)" + lost},
        {"SET NAMES binary", Action::replace, "SET NAMES nonesuch",
         "DB error (set names query) 1115: Unknown character set: 'nonesuch'"},
    };
    for (const auto& test : cases) {
        const MysqlProxy proxy(test.query, test.action, test.replacement);
        const Opened opened = open_with(db_open);
        EXPECT_EQ(nullptr, opened.connection) << test.message;
        EXPECT_EQ(test.message, opened.message);
        const Opened session = open_with(db_open_session);
        EXPECT_NE(nullptr, session.connection) << "the session itself gives it back";
        EXPECT_EQ(test.message, session.message);
    }
}

TEST_F(PanelSession, AStepThatTheClientCallsNoErrorKeepsTheConnection) {
    const struct {
        const char* replacement;
        const char* message;
    } cases[] = {
        {"SHOW VARIABLES LIKE 'nonesuch'", "DB error (fetch version row): unknown error"},
        {"SELECT 'version', NULL", "DB error (empty version result): unknown error"},
        {"SELECT 'version'", "DB error (empty version result): unknown error"},
        {"SET @nothing=1", "DB error (store query result): unknown error"},
    };
    for (const auto& test : cases) {
        const MysqlProxy proxy(version_query, MysqlProxy::Action::replace, test.replacement);
        const Opened opened = open_with(db_open);
        EXPECT_NE(nullptr, opened.connection) << test.replacement;
        EXPECT_EQ(test.message, opened.message);
    }
}

TEST_F(PanelSession, NothingIsSentAfterTheFirstFailedStep) {
    restart_as("5.0.45-log");
    {
        const MysqlProxy proxy(misc_query, MysqlProxy::Action::replace, "SELECT val FROM nowhere");
        open_with(db_open_session);
    }
    EXPECT_THAT(sent(),
                ElementsAre("set foreign_key_checks=0", version_query, "SELECT val FROM nowhere"));
    {
        const MysqlProxy proxy(version_query, MysqlProxy::Action::replace, "SELECT 'version'");
        open_with(db_open_session);
    }
    EXPECT_THAT(sent(), ElementsAre("set foreign_key_checks=0", "SELECT 'version'"));
}

} // namespace
