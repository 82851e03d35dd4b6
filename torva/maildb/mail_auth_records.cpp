#include "torva/maildb/mail_auth_records.h"

#include "torva/libc/log.h"
#include "torva/maildb/mail_auth.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sqlite3.h>
#include <string.h>

namespace torva::maildb {

namespace {

void wipe_and_free(char* text) {
    if (text != nullptr) {
        explicit_bzero(text, std::strlen(text));
    }
    std::free(text);
}

} // namespace

bool split_address(const char* text, Address& address) {
    const char* at = std::strchr(text, '@');
    if (at == nullptr || at == text || at[1] == '\0') {
        torva_log(3, "Invalid mail address '%s'", text);
        return false;
    }
    address.name = std::string_view(text, static_cast<std::size_t>(at - text));
    address.domain = at + 1;
    return true;
}

bool copy_column(sqlite3_stmt* row, int column, char** copy) {
    *copy = nullptr;
    if (sqlite3_column_type(row, column) == SQLITE_NULL) {
        return true;
    }
    const unsigned char* text = sqlite3_column_text(row, column);
    *copy = text == nullptr ? nullptr : ::strdup(reinterpret_cast<const char*>(text));
    return *copy != nullptr || report_no_memory();
}

bool copy_record(sqlite3_stmt* row, int first, mail_auth_user& user) {
    user.status = sqlite3_column_int(row, first + 2);
    user.domain_status =
        sqlite3_column_count(row) > first + 3 ? sqlite3_column_int(row, first + 3) : -1;
    return copy_column(row, first, &user.password) &&
           copy_column(row, first + 1, &user.encrypted_password);
}

bool report_no_memory() {
    errno = ENOMEM;
    torva_log(2, "Memory allocation error");
    return false;
}

} // namespace torva::maildb

void mail_auth_free_user(struct mail_auth_user* user) {
    if (user == nullptr) {
        return;
    }
    std::free(user->name);
    torva::maildb::wipe_and_free(user->password);
    torva::maildb::wipe_and_free(user->encrypted_password);
    *user = {};
}

void mail_auth_free_list(struct mail_auth_user* users) {
    if (users == nullptr) {
        return;
    }
    for (mail_auth_user* user = users; user->name != nullptr; ++user) {
        mail_auth_free_user(user);
    }
    std::free(users);
}
