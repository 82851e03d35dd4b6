#include "torva/maildb/panel_db.h"

#include "torva/libc/log.h"
#include "torva/maildb/MysqlHolders.h"
#include "torva/maildb/TerminatedArray.h"
#include "torva/maildb/format_text.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

using torva::maildb::ConnectionHolder;
using torva::maildb::format_text;
using torva::maildb::ResultHolder;
using torva::maildb::Text;

constexpr std::size_t query_error_size = 1024;

using ResultList = torva::maildb::TerminatedArray<char*, db_free_list>;

/// Reports that memory has run out. Always false.
bool report_no_memory() {
    torva_log(3, "System error: %s\n", std::strerror(errno));
    return false;
}

bool append(ResultList& list, const char* text) {
    char* copy = ::strdup(text);
    if (copy == nullptr) {
        return report_no_memory();
    }
    list.append(copy);
    return list.reserve() || report_no_memory();
}

/// Fills the list with the first column of the rows.
bool collect(MYSQL_RES* rows, ResultList& list) {
    if (!list.reserve()) {
        return report_no_memory();
    }
    while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
        if (row[0] != nullptr && !append(list, row[0])) {
            return false;
        }
    }
    return true;
}

int run_list_query(MYSQL* connection, const char* query, char*** list) {
    ResultHolder rows;
    if (mysql_query(connection, query) == 0) {
        rows.reset(mysql_store_result(connection));
    }
    if (!rows) {
        torva_log(3, "Unable to get data from mysql database");
        return -1;
    }
    ResultList result;
    if (!collect(rows.get(), result)) {
        torva_log(3, "Query error: %s", mysql_error(connection));
        return -1;
    }
    *list = result.release();
    return 0;
}

/// Reports that the text of a query could not be made.
int report_no_query() {
    torva_log(3, "Unable to create database query");
    return -1;
}

bool is_safe_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::strchr("-._+=@", c) != nullptr;
}

} // namespace

int db_query_list(struct st_mysql* connection, const char* query, char*** list) {
    *list = nullptr;
    if (connection != nullptr) {
        return run_list_query(connection, query, list);
    }
    char error[query_error_size] = "";
    const ConnectionHolder own(db_open(error, sizeof error));
    if (error[0] != '\0') {
        torva_log(3, "%s", error);
    }
    if (!own) {
        torva_log(3, "Unable to connect to mysql database");
        return -1;
    }
    return run_list_query(own.get(), query, list);
}

int db_get_domain_aliases(struct st_mysql* connection, const char* domain, char*** list) {
    *list = nullptr;
    const Text query = format_text("SELECT da.name FROM domainaliases da JOIN domains d "
                                   "WHERE da.dom_id=d.id and d.name='%s'",
                                   domain);
    if (!query) {
        return report_no_query();
    }
    if (db_query_list(connection, query.get(), list) != 0) {
        torva_log(3, "Unable to get domain aliases from database for: %s", domain);
        return -1;
    }
    return 0;
}

int db_get_mail_aliases(struct st_mysql* connection, const char* name, const char* domain,
                        char*** list) {
    *list = nullptr;
    const Text query = format_text("SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d "
                                   "WHERE ma.mn_id=m.id AND m.mail_name='%s' AND m.dom_id=d.id "
                                   "AND d.name='%s'",
                                   name, domain);
    if (!query) {
        return report_no_query();
    }
    if (db_query_list(connection, query.get(), list) != 0) {
        torva_log(3, "Unable to get aliases for mailname: %s@%s", name, domain);
        return -1;
    }
    return 0;
}

int db_get_mail_names(struct st_mysql* connection, const char* domain, char*** list) {
    *list = nullptr;
    const Text query = format_text("SELECT m.mail_name FROM mail m JOIN domains d "
                                   "WHERE m.dom_id=d.id AND d.name='%s'",
                                   domain);
    if (!query) {
        return report_no_query();
    }
    if (db_query_list(connection, query.get(), list) != 0) {
        torva_log(3, "Unable to get mailnames from domain: %s", domain);
        return -1;
    }
    return 0;
}

int db_get_domain_by_alias(struct st_mysql* connection, const char* alias, char*** list) {
    *list = nullptr;
    const Text query = format_text("SELECT d.name FROM domains d JOIN domainaliases da "
                                   "WHERE d.id=da.dom_id AND da.name='%s'",
                                   alias);
    if (!query) {
        return report_no_query();
    }
    if (db_query_list(connection, query.get(), list) != 0) {
        torva_log(3, "Unable to get domain by domainalias: %s", alias);
        return -1;
    }
    return 0;
}

void db_free_list(char** list) {
    if (list == nullptr) {
        return;
    }
    for (char** entry = list; *entry != nullptr; ++entry) {
        std::free(*entry);
    }
    std::free(list);
}

int db_is_safe_name(const char* name) {
    if (name == nullptr || *name == '\0') {
        return 0;
    }
    for (const char* c = name; *c != '\0'; ++c) {
        if (!is_safe_character(*c)) {
            return 0;
        }
    }
    return 1;
}
