#include "torva/maildb/panel_db.h"

#include "support/AllocationFaults.h"
#include "support/HeapCensus.h"
#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/Files.h"
#include "torva/maildb/MysqlProxy.h"
#include "torva/maildb/PrivateMariaDb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mysql.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Connection = std::unique_ptr<MYSQL, void (*)(MYSQL*)>;

constexpr int error_level = 3;
const LogLine no_data{error_level, "Unable to get data from mysql database"};

char* const untouched = const_cast<char*>("untouched");

/// A returned list, freed at the end.
class List {
public:
    List() = default;
    ~List() { db_free_list(entries_ == sentinel() ? nullptr : entries_); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    char*** out() { return &entries_; }
    char** get() const { return entries_; }

    std::vector<std::string> values() const {
        std::vector<std::string> result;
        for (char** entry = entries_; *entry != nullptr; ++entry) {
            result.emplace_back(*entry);
        }
        return result;
    }

private:
    /// Neither null nor a list: shows that a failure sets it to null.
    static char** sentinel() {
        static char* text[] = {untouched, nullptr};
        return text;
    }
    char** entries_ = sentinel();
};

class PanelDb : public testing::Test {
protected:
    PanelDb() : server(PrivateMariaDb::fresh()) {
        server.run("INSERT INTO domains VALUES (1, 'example.com'), (2, 'empty.example');"
                   "INSERT INTO domainaliases VALUES (1, 1, 'example.net'), (2, 1, 'example.org');"
                   "INSERT INTO mail VALUES (1, 1, 'joe'), (2, 1, 'ann');"
                   "INSERT INTO mail_aliases VALUES (1, 1, 'sales'), (2, 1, 'info'), "
                   "(3, 2, 'anna')");
    }

    static Connection connect() {
        char error[256] = "";
        Connection connection(db_open(error, sizeof error), mysql_close);
        EXPECT_NE(nullptr, connection) << error;
        return connection;
    }

    PrivateMariaDb& server;
    CapturedLog log;
};

TEST_F(PanelDb, DomainAliasesAreListed) {
    List list;
    EXPECT_EQ(0, db_get_domain_aliases(nullptr, "example.com", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("example.net", "example.org"));
}

TEST_F(PanelDb, MailAliasesAreListedForOneNameOfOneDomain) {
    List list;
    EXPECT_EQ(0, db_get_mail_aliases(nullptr, "joe", "example.com", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("sales", "info"));
    List other;
    EXPECT_EQ(0, db_get_mail_aliases(nullptr, "joe", "empty.example", other.out()));
    EXPECT_THAT(other.values(), IsEmpty());
}

TEST_F(PanelDb, MailNamesAreListedInTheServersOrder) {
    List list;
    EXPECT_EQ(0, db_get_mail_names(nullptr, "example.com", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("joe", "ann"));
}

TEST_F(PanelDb, TheDomainOfAnAliasIsFound) {
    List list;
    EXPECT_EQ(0, db_get_domain_by_alias(nullptr, "example.org", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("example.com"));
}

TEST_F(PanelDb, TheQueriesAreSentAsTheyAreWritten) {
    server.restart({"--general-log=1", "--log-output=TABLE"});
    const Connection connection = connect();
    server.run("TRUNCATE mysql.general_log");
    List lists[4];
    EXPECT_EQ(0, db_get_domain_aliases(connection.get(), "d.example", lists[0].out()));
    EXPECT_EQ(0, db_get_mail_aliases(connection.get(), "name", "d.example", lists[1].out()));
    EXPECT_EQ(0, db_get_mail_names(connection.get(), "d.example", lists[2].out()));
    EXPECT_EQ(0, db_get_domain_by_alias(connection.get(), "a.example", lists[3].out()));
    EXPECT_THAT(
        server.values("SELECT argument FROM mysql.general_log WHERE user_host LIKE 'admin%'"),
        ElementsAre("SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id and "
                    "d.name='d.example'",
                    "SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE "
                    "ma.mn_id=m.id AND m.mail_name='name' AND m.dom_id=d.id AND "
                    "d.name='d.example'",
                    "SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND "
                    "d.name='d.example'",
                    "SELECT d.name FROM domains d JOIN domainaliases da WHERE d.id=da.dom_id AND "
                    "da.name='a.example'"));
}

TEST_F(PanelDb, AQueryWithNoRowsGivesAnEmptyListAnd0) {
    List list;
    EXPECT_EQ(0, db_get_mail_names(nullptr, "empty.example", list.out()));
    ASSERT_NE(nullptr, list.get());
    EXPECT_EQ(nullptr, list.get()[0]);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(PanelDb, NullColumnsAreSkipped) {
    server.run("INSERT INTO mail VALUES (3, 1, NULL), (4, 1, ''), (5, 1, 'last')");
    List list;
    EXPECT_EQ(0, db_get_mail_names(nullptr, "example.com", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("joe", "ann", "", "last"));
}

TEST_F(PanelDb, OnlyTheFirstColumnIsTaken) {
    List list;
    EXPECT_EQ(0, db_query_list(nullptr, "SELECT 'a', 'b' UNION SELECT 'c', 'd'", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("a", "c"));
}

TEST_F(PanelDb, AGivenConnectionIsUsedAndStaysOpen) {
    const Connection connection = connect();
    mysql_query(connection.get(), "SET @mine='kept'");
    for (int turn = 0; turn < 2; ++turn) {
        List list;
        EXPECT_EQ(0, db_query_list(connection.get(), "SELECT @mine", list.out()));
        EXPECT_THAT(list.values(), ElementsAre("kept"));
    }
}

TEST_F(PanelDb, AConnectionOfItsOwnIsClosedOnEachPath) {
    const std::size_t before = descriptor_count();
    for (const char* query : {"SELECT 1", "SELECT nonsense", "SET @nothing=1"}) {
        List list;
        db_query_list(nullptr, query, list.out());
        EXPECT_EQ(before, descriptor_count()) << query;
    }
}

TEST_F(PanelDb, AFailedQueryIsReportedAndGivesNoList) {
    List list;
    EXPECT_EQ(-1, db_query_list(nullptr, "SELECT nonsense", list.out()));
    EXPECT_EQ(nullptr, list.get());
    EXPECT_THAT(log.take(), ElementsAre(no_data));
}

TEST_F(PanelDb, AQueryWithoutResultIsReportedAndGivesNoList) {
    List list;
    EXPECT_EQ(-1, db_query_list(nullptr, "SET @nothing=1", list.out()));
    EXPECT_EQ(nullptr, list.get());
    EXPECT_THAT(log.take(), ElementsAre(no_data));
}

TEST_F(PanelDb, AResultThatBreaksOffIsReportedAndGivesNoList) {
    const MysqlProxy proxy("SELECT 'cut short'", MysqlProxy::Action::cut_reply);
    List list;
    EXPECT_EQ(-1, db_query_list(nullptr, "SELECT 'cut short'", list.out()));
    EXPECT_EQ(nullptr, list.get());
    EXPECT_THAT(log.take(), ElementsAre(no_data));
}

TEST_F(PanelDb, EachOfTheFourQueriesReportsItsOwnFailure) {
    // The names go in as they are: the quote ends the text early.
    const Connection connection = connect();
    List lists[4];
    EXPECT_EQ(-1, db_get_domain_aliases(connection.get(), "d'", lists[0].out()));
    EXPECT_THAT(
        log.take(),
        ElementsAre(no_data,
                    LogLine(error_level, "Unable to get domain aliases from database for: d'")));
    EXPECT_EQ(-1, db_get_mail_aliases(connection.get(), "n'", "d", lists[1].out()));
    EXPECT_THAT(
        log.take(),
        ElementsAre(no_data, LogLine(error_level, "Unable to get aliases for mailname: n'@d")));
    EXPECT_EQ(-1, db_get_mail_names(connection.get(), "d'", lists[2].out()));
    EXPECT_THAT(
        log.take(),
        ElementsAre(no_data, LogLine(error_level, "Unable to get mailnames from domain: d'")));
    EXPECT_EQ(-1, db_get_domain_by_alias(connection.get(), "a'", lists[3].out()));
    EXPECT_THAT(
        log.take(),
        ElementsAre(no_data, LogLine(error_level, "Unable to get domain by domainalias: a'")));
    for (const List& list : lists) {
        EXPECT_EQ(nullptr, list.get());
    }
}

TEST_F(PanelDb, WithoutAServerTheReasonIsReported) {
    server.stop();
    List list;
    EXPECT_EQ(-1, db_get_mail_names(nullptr, "example.com", list.out()));
    server.restart();
    EXPECT_EQ(nullptr, list.get());
    EXPECT_THAT(
        log.take(),
        ElementsAre(LogLine(error_level, "Unable to connect to Torva Database: Can't connect to "
                                         "local server through socket "
                                         "'/run/mysqld/mysqld.sock' (2)"),
                    LogLine(error_level, "Unable to connect to mysql database"),
                    LogLine(error_level, "Unable to get mailnames from domain: example.com")));
}

TEST_F(PanelDb, AServerThatDiesBetweenQueriesIsReported) {
    const Connection connection = connect();
    List first;
    EXPECT_EQ(0, db_get_mail_names(connection.get(), "example.com", first.out()));
    server.stop();
    List second;
    EXPECT_EQ(-1, db_get_mail_names(connection.get(), "example.com", second.out()));
    server.restart();
    EXPECT_EQ(nullptr, second.get());
    EXPECT_THAT(log.take(),
                ElementsAre(no_data, LogLine(error_level, "Unable to get mailnames from domain: "
                                                          "example.com")));
}

TEST_F(PanelDb, ASessionWithoutVersionIsUsedAndReported) {
    const MysqlProxy proxy("SHOW VARIABLES LIKE 'version'", MysqlProxy::Action::replace,
                           "SHOW VARIABLES LIKE 'nonesuch'");
    List list;
    EXPECT_EQ(0, db_get_mail_names(nullptr, "example.com", list.out()));
    EXPECT_THAT(list.values(), ElementsAre("joe", "ann"));
    EXPECT_THAT(log.take(), ElementsAre(LogLine(error_level, "DB error (fetch version row): "
                                                             "unknown error")));
}

TEST_F(PanelDb, AListOf200000RowsComesOutWhole) {
    List list;
    EXPECT_EQ(0, db_query_list(nullptr, "SELECT seq FROM seq_1_to_200000", list.out()));
    const std::vector<std::string> values = list.values();
    ASSERT_EQ(200000U, values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        ASSERT_EQ(std::to_string(i + 1), values[i]);
    }
}

TEST_F(PanelDb, QueriesLeaveNothingAllocated) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << "the sanitizer's allocator keeps no books of this kind";
    }
    const Connection connection = connect();
    const auto everything = [&] {
        for (const auto& query :
             {"SELECT REPEAT('x', 500) FROM seq_1_to_3", "SELECT seq FROM seq_1_to_3 WHERE seq > 3",
              "SELECT none FROM at_all"}) {
            List list;
            db_query_list(connection.get(), query, list.out());
        }
        List names;
        EXPECT_EQ(0, db_get_mail_names(connection.get(), "d.example", names.out()));
        log.take();
    };
    EXPECT_EQ(0, blocksLeftBy(everything));
}

TEST_F(PanelDb, NoMemoryForTheQueryIsReported) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    const std::string name(100000, 'd');
    const std::function<int(char***)> queries[] = {
        [&](char*** list) { return db_get_domain_aliases(nullptr, name.c_str(), list); },
        [&](char*** list) { return db_get_mail_aliases(nullptr, "u", name.c_str(), list); },
        [&](char*** list) { return db_get_mail_names(nullptr, name.c_str(), list); },
        [&](char*** list) { return db_get_domain_by_alias(nullptr, name.c_str(), list); },
    };
    for (const auto& query : queries) {
        List list;
        {
            const AllocationFaults faults(100000);
            EXPECT_EQ(-1, query(list.out()));
        }
        EXPECT_EQ(nullptr, list.get());
        EXPECT_THAT(
            log.take(),
            ElementsAre(LogLine(error_level, "Cannot allocate memory: Cannot allocate memory"),
                        LogLine(error_level, "Unable to create database query")));
    }
}

TEST_F(PanelDb, NoMemoryForTheListIsReported) {
    if (!allocation_faults_work) {
        GTEST_SKIP() << no_allocation_faults;
    }
    const struct {
        const char* name;
        const char* query;
        std::size_t size;
    } cases[] = {
        {"first array", "SELECT 1", 2 * sizeof(char*)},
        {"grown array", "SELECT seq FROM seq_1_to_20000", 8192 * sizeof(char*)},
        {"copy of a row", "SELECT 'first' UNION ALL SELECT REPEAT('x', 33333)", 33334},
    };
    const Connection connection = connect();
    for (const auto& test : cases) {
        List list;
        {
            const AllocationFaults faults(test.size, test.size);
            EXPECT_EQ(-1, db_query_list(connection.get(), test.query, list.out())) << test.name;
        }
        EXPECT_EQ(nullptr, list.get()) << test.name;
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(error_level, "System error: Cannot allocate memory\n"),
                                LogLine(error_level, "Query error: ")))
            << test.name;
    }
}

} // namespace
