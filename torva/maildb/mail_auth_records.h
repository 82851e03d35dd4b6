// Addresses, domain ids and mailbox records, for the sources that implement
// torva/maildb/mail_auth.h.
// Private to the library: not installed.
#pragma once

#include <string_view>

struct mail_auth_user;
struct sqlite3_stmt;

namespace torva::maildb {

class Database;

struct FoundDomain {
    long long id = 0;
    int status = 0; ///< only when asked for
};

enum class Search { found, missing, failed };

/// Looks up a domain. Only a failure is reported.
Search search_domain(Database& database, const char* domain, FoundDomain& found,
                     bool with_status = false);

/// The same in the database of a mail server type.
Search search_domain(int type, const char* domain);

/// Looks up a domain. False, reported, also when it does not exist.
bool find_domain(Database& database, const char* domain, FoundDomain& found,
                 bool with_status = false);

/// The two parts of a mail address; both point into the address.
struct Address {
    std::string_view name;
    const char* domain = nullptr;
};

/// Splits an address at its first "@". False, reported, when there is none, or nothing
/// before or after it.
bool split_address(const char* text, Address& address);

/// Copies a column, null for NULL, into memory that the caller frees (free(3)). False,
/// reported at level 2, when memory runs out.
bool copy_column(sqlite3_stmt* row, int column, char** copy);

/// Copies the columns after a mailbox's name: plain password, encrypted password, status
/// and, when there is a fourth column, the domain's status.
///
/// \param first  the first of these columns
/// \param user   receives them and keeps its name; the caller frees it
bool copy_record(sqlite3_stmt* row, int first, mail_auth_user& user);

/// Reports that memory has run out; errno becomes ENOMEM. Always false.
bool report_no_memory();

} // namespace torva::maildb
