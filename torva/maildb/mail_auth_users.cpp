#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_records.h"
#include "torva/maildb/mail_auth_sql.h"

#include <cstring>

using torva::maildb::Address;
using torva::maildb::Database;
using torva::maildb::FoundDomain;
using torva::maildb::split_address;
using torva::maildb::Statement;
using Access = torva::maildb::Database::Access;

namespace {

/// Opens the database and finds the domain of the address in it.
bool open_at_domain(Database& database, int type, Access access, const char* text, Address& address,
                    FoundDomain& domain) {
    return split_address(text, address) && database.open(type, access) &&
           find_domain(database, address.domain, domain);
}

bool read_user(Statement& statement, const char* address, mail_auth_user& user) {
    switch (statement.step("user selection")) {
    case Statement::Step::failed:
        return false;
    case Statement::Step::done:
        torva_log(3, "No such user '%s' in mail authorization database", address);
        return false;
    case Statement::Step::row:
        break;
    }
    const bool copied = torva::maildb::copy_column(statement.get(), 0, &user.name) &&
                        torva::maildb::copy_record(statement.get(), 1, user);
    statement.finalize();
    return copied;
}

} // namespace

int mail_auth_set_user(int type, const char* address, const char* password, int encrypted,
                       int status) {
    Database database;
    Statement statement(database, encrypted != 0
                                      ? "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, "
                                        "status, dom_id) VALUES (?, ?, ?, ?)"
                                      : "INSERT OR REPLACE INTO users (name, userPassword, "
                                        "status, dom_id) VALUES (?, ?, ?, ?)");
    Address parts;
    FoundDomain domain;
    const bool done = open_at_domain(database, type, Access::read_write, address, parts, domain) &&
                      statement.prepare() && statement.bind_name(1, "user name", parts.name) &&
                      statement.bind_password(2, password) && statement.bind_status(3, status) &&
                      statement.bind_domain_id(4, domain.id) &&
                      statement.execute("user registration") && database.close();
    return done ? 0 : -1;
}

int mail_auth_read_user(int type, const char* address, struct mail_auth_user* user) {
    *user = {};
    Database database;
    Statement statement(database, "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM "
                                  "users WHERE dom_id=? AND name=?");
    Address parts;
    FoundDomain domain;
    const bool done = open_at_domain(database, type, Access::read_only, address, parts, domain) &&
                      statement.prepare() && statement.bind_domain_id(1, domain.id) &&
                      statement.bind_name(2, "user name", parts.name) &&
                      read_user(statement, address, *user) && database.close();
    if (!done) {
        mail_auth_free_user(user);
    }
    return done ? 0 : -1;
}

int mail_auth_rename_user(int type, const char* address, const char* new_name) {
    if (*new_name == '\0' || std::strchr(new_name, '@') != nullptr) {
        torva_log(3, "Invalid mail address '%s'", new_name);
        return -1; // no address could reach the mailbox any more
    }
    Database database;
    Statement statement(database, "UPDATE users SET name=? WHERE name=? AND dom_id=?");
    Address parts;
    FoundDomain domain;
    const bool done = open_at_domain(database, type, Access::read_write, address, parts, domain) &&
                      statement.prepare() && statement.bind_name(1, "new user name", new_name) &&
                      statement.bind_name(2, "user name", parts.name) &&
                      statement.bind_domain_id(3, domain.id) && statement.execute("user rename") &&
                      database.close();
    return done ? 0 : -1;
}

int mail_auth_delete_user(int type, const char* address) {
    Database database;
    Statement statement(database, "DELETE FROM users WHERE name=? AND dom_id=?");
    Address parts;
    FoundDomain domain;
    const bool done = open_at_domain(database, type, Access::read_write, address, parts, domain) &&
                      statement.prepare() && statement.bind_name(1, "user name", parts.name) &&
                      statement.bind_domain_id(2, domain.id) && statement.execute("user removal") &&
                      database.close();
    return done ? 0 : -1;
}
