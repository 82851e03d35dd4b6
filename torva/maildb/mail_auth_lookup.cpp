#include "torva/libc/log.h"
#include "torva/maildb/TerminatedArray.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_records.h"
#include "torva/maildb/mail_auth_sql.h"

#include <cstring>
#include <sqlite3.h>

using torva::maildb::Address;
using torva::maildb::Database;
using torva::maildb::FoundDomain;
using torva::maildb::report_no_memory;
using torva::maildb::Statement;
using Access = torva::maildb::Database::Access;

namespace {

bool is_empty(const char* text) {
    return text == nullptr || *text == '\0';
}

bool copy_found(Statement& statement, const char* address, mail_auth_user& user) {
    user.name = ::strdup(address);
    const bool copied = user.name == nullptr ? report_no_memory()
                                             : torva::maildb::copy_record(statement.get(), 0, user);
    statement.finalize();
    return copied;
}

bool look_up(Database& database, Statement& statement, const char* address, const char* domain,
             mail_auth_user& user) {
    switch (statement.step("user authentication")) {
    case Statement::Step::failed:
        return false;
    case Statement::Step::row:
        return copy_found(statement, address, user);
    case Statement::Step::done:
        break;
    }
    statement.finalize();
    // The query does not tell which of the two is missing.
    FoundDomain found;
    if (find_domain(database, domain, found)) {
        torva_log(3, "No such user '%s' in mail authorization database", address);
    }
    return false;
}

using UserList = torva::maildb::TerminatedArray<mail_auth_user, mail_auth_free_list>;

/// Whether the mailbox belongs in the list; reports one that does not.
bool is_usable(const mail_auth_user& user) {
    if (is_empty(user.name)) {
        torva_log(6, "NULL or empty mail address stored in the database, skipped");
        return false;
    }
    if (is_empty(user.password) && is_empty(user.encrypted_password)) {
        torva_log(6, "empty password properties (both plain and encrypted) for user %s, skipped",
                  user.name);
        return false;
    }
    return true;
}

bool append_row(sqlite3_stmt* row, UserList& list) {
    if (!list.reserve()) {
        return report_no_memory();
    }
    mail_auth_user user{};
    if (!torva::maildb::copy_column(row, 0, &user.name) ||
        !torva::maildb::copy_record(row, 1, user)) {
        mail_auth_free_user(&user);
        return false;
    }
    if (is_usable(user)) {
        list.append(user);
    } else {
        mail_auth_free_user(&user);
    }
    return true;
}

bool collect_users(Statement& statement, UserList& list) {
    if (!list.reserve()) {
        return report_no_memory();
    }
    for (;;) {
        switch (statement.step("users list selection")) {
        case Statement::Step::failed:
            return false;
        case Statement::Step::done:
            statement.finalize();
            return true;
        case Statement::Step::row:
            if (!append_row(statement.get(), list)) {
                return false;
            }
        }
    }
}

} // namespace

int mail_auth_lookup(int type, const char* address, struct mail_auth_user* user) {
    *user = {};
    Database database;
    Statement statement(database,
                        "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, "
                        "u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, "
                        "domains AS d WHERE u.dom_id = d.id AND u.name=? AND d.name=?");
    Address parts;
    const bool done =
        torva::maildb::split_address(address, parts) && database.open(type, Access::read_only) &&
        statement.prepare() && statement.bind_name(1, "user name", parts.name) &&
        statement.bind_name(2, "domain name", parts.domain) &&
        look_up(database, statement, address, parts.domain, *user) && database.close();
    if (!done) {
        mail_auth_free_user(user);
    }
    return done ? 0 : -1;
}

int mail_auth_list(int type, struct mail_auth_user** users, size_t* count) {
    *users = nullptr;
    if (count != nullptr) {
        *count = 0;
    }
    Database database;
    Statement statement(database,
                        "SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS "
                        "password, u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, "
                        "d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id "
                        "= d.id");
    UserList list;
    if (!database.open(type, Access::read_only) || !statement.prepare() ||
        !collect_users(statement, list) || !database.close()) {
        torva_log(3, "Unable to get users list from MTA password database");
        return -1;
    }
    if (count != nullptr) {
        *count = list.count();
    }
    *users = list.release();
    return 0;
}
