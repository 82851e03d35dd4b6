#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_records.h"
#include "torva/maildb/mail_auth_sql.h"

#include <sqlite3.h>

using torva::maildb::Database;
using torva::maildb::Statement;
using Access = torva::maildb::Database::Access;

namespace torva::maildb {

Search search_domain(Database& database, const char* domain, FoundDomain& found, bool with_status) {
    Statement statement(database, with_status ? "SELECT id, status FROM domains WHERE name=?"
                                              : "SELECT id FROM domains WHERE name=?");
    if (!statement.prepare() || !statement.bind_name(1, "domain name", domain)) {
        return Search::failed;
    }
    switch (statement.step("mail domain selection")) {
    case Statement::Step::failed:
        return Search::failed;
    case Statement::Step::done:
        return Search::missing;
    case Statement::Step::row:
        break;
    }
    found.id = sqlite3_column_int64(statement.get(), 0);
    found.status = with_status ? sqlite3_column_int(statement.get(), 1) : 0;
    return Search::found;
}

Search search_domain(int type, const char* domain) {
    Database database;
    if (!database.open(type, Access::read_only)) {
        return Search::failed;
    }
    FoundDomain ignored;
    return search_domain(database, domain, ignored);
}

bool find_domain(Database& database, const char* domain, FoundDomain& found, bool with_status) {
    const Search result = search_domain(database, domain, found, with_status);
    if (result == Search::missing) {
        torva_log(3, "No such domain '%s' in the mail authentication DB", domain);
    }
    return result == Search::found;
}

} // namespace torva::maildb

namespace {

/// A domain with an empty name would have mailboxes without a valid address.
bool is_domain_name(const char* name) {
    if (*name == '\0') {
        torva_log(3, "Invalid mail domain '%s'", name);
        return false;
    }
    return true;
}

} // namespace

int mail_auth_add_domain(int type, const char* domain, int status) {
    if (!is_domain_name(domain)) {
        return -1;
    }
    Database database;
    Statement statement(database, "INSERT INTO domains (name, status) VALUES(?, ?)");
    const bool done = database.open(type, Access::read_write) && statement.prepare() &&
                      statement.bind_name(1, "domain name", domain) &&
                      statement.bind_status(2, status) &&
                      statement.execute("mail authorization registration") && database.close();
    return done ? 0 : -1;
}

int mail_auth_find_domain(int type, const char* domain, long long* id, int* status) {
    Database database;
    torva::maildb::FoundDomain found;
    const bool done = database.open(type, Access::read_only) &&
                      find_domain(database, domain, found, status != nullptr) && database.close();
    if (!done) {
        return -1;
    }
    if (id != nullptr) {
        *id = found.id;
    }
    if (status != nullptr) {
        *status = found.status;
    }
    return 0;
}

int mail_auth_delete_domain(int type, const char* domain) {
    Database database;
    Statement statement(database, "DELETE FROM domains WHERE name=?");
    const bool done = database.open(type, Access::read_write) && statement.prepare() &&
                      statement.bind_name(1, "domain name", domain) &&
                      statement.execute("mail domain authorization removal") && database.close();
    return done ? 0 : -1;
}

int mail_auth_rename_domain(int type, const char* old_name, const char* new_name) {
    if (!is_domain_name(new_name)) {
        return -1;
    }
    Database database;
    Statement statement(database, "UPDATE domains SET name=? WHERE name=?");
    const bool done = database.open(type, Access::read_write) && statement.prepare() &&
                      statement.bind_name(1, "new domain name", new_name) &&
                      statement.bind_name(2, "old domain name", old_name) &&
                      statement.execute("mail domain authorization rename") && database.close();
    return done ? 0 : -1;
}

int mail_auth_set_domain_status(int type, const char* domain, int status) {
    Database database;
    Statement statement(database, "UPDATE domains SET status=? WHERE name=?");
    const bool done =
        database.open(type, Access::read_write) && statement.prepare() &&
        statement.bind_status(1, status) && statement.bind_name(2, "domain name", domain) &&
        statement.execute("mail domain authorization status change") && database.close();
    return done ? 0 : -1;
}
