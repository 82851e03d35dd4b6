// Read access to the panel's MySQL database: the connection with its session
// set-up, and the four queries. Nothing here throws: a failure is a message
// through torva_log at level 3 and the result -1 (or no connection). The records
// that are kept in step with it are torva/maildb/mail_auth.h.
#pragma once

#include <stddef.h>

struct st_mysql; // MYSQL of the client library

#ifdef __cplusplus
extern "C" {
#endif

/// 1 when the session uses "SET NAMES utf8", else 0. db_open() sets it to 0 when it
/// begins, and to what holds once the server has told.
extern int db_utf8_compatible;

/// Connects to the database "kra" on this host as "admin", with the password of
/// "/etc/kra/.kra.shadow": its first line, of which 99 characters count.
///
/// \param error       receives the message of a failure, cut to its size
/// \param error_size  its size in bytes; 0: `error` may be null, and gets nothing
/// \return connection owned by the caller (mysql_close(3)), or null. Its socket is
///         close-on-exec and above 2, also in a program without standard streams.
/// A server that says nothing is waited for 10 seconds until it has greeted, later 30
/// seconds for each read and write. One that keeps sending a little gets around that.
struct st_mysql* db_connect(char* error, size_t error_size);

/// The same, with the session set up; `error` is emptied first. A server that answers
/// the version query with nothing leaves its message in `error` and a usable connection
/// without a character set of its own.
struct st_mysql* db_open(char* error, size_t error_size);

/// Runs a query and collects the first column of its rows; rows in which it is
/// NULL are skipped.
///
/// \param connection  null: one is opened for this query
/// \param query       text of the query
/// \param list        receives an array of texts that ends with a null entry, owned
///                    by the caller (db_free_list()); null on failure
/// \return 0 or -1
int db_query_list(struct st_mysql* connection, const char* query, char*** list);

/// The four queries: as db_query_list(). Names go into the query AS THEY ARE,
/// between single quotes: a name with a quote or a backslash in it changes the
/// query. Pass only names that have been validated; db_is_safe_name() is one check
/// that is enough.
int db_get_domain_aliases(struct st_mysql* connection, const char* domain, char*** list);
int db_get_mail_aliases(struct st_mysql* connection, const char* name, const char* domain,
                        char*** list);
int db_get_mail_names(struct st_mysql* connection, const char* domain, char*** list);
int db_get_domain_by_alias(struct st_mysql* connection, const char* alias, char*** list);

/// Frees a list with all its texts; null is allowed.
void db_free_list(char** list);

/// Whether a name may go into the four queries.
///
/// \return 1 when it is made of ASCII letters, digits, "-", ".", "_", "+", "=" and
///         "@" alone and is not empty; else 0, as for null
int db_is_safe_name(const char* name);

#ifdef __cplusplus
} // extern "C"
#endif
