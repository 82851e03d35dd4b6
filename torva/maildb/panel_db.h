// Read access to the panel's MySQL database: the connection with its session set-up, and
// the four queries. Nothing here throws. The queries report a failure through torva_log at
// level 3 and return -1; db_connect() and db_open() only return its message. The records
// that are kept in step with this database are torva/maildb/mail_auth.h.
#pragma once

#include <stddef.h>

struct st_mysql; // MYSQL of the client library

#ifdef __cplusplus
extern "C" {
#endif

/// 1 when the session uses "SET NAMES utf8", otherwise 0. db_open() first sets it to 0,
/// then to 1 if the server's answers say so.
extern int db_utf8_compatible;

/// Connects to the database "kra" on this host as "admin", with the password from
/// "/etc/kra/.kra.shadow": its first line, at most 99 characters of it.
///
/// \param error       receives the message of a failure, truncated to its size
/// \param error_size  its size in bytes; when it is 0, `error` may be null
/// \return connection owned by the caller (mysql_close(3)), or null. Its socket is
///         close-on-exec and above 2, even in a program without standard streams.
/// The time-outs are 10 seconds for the server's greeting, then 30 seconds for each read
/// and each write. A server that keeps sending a little is not timed out.
struct st_mysql* db_connect(char* error, size_t error_size);

/// Like db_connect(), and sets up the session; `error` is emptied first. When the server
/// has no answer to the version query, the connection is returned all the same, with a
/// message in `error` and the server's default character set.
struct st_mysql* db_open(char* error, size_t error_size);

/// Runs a query and collects the first column of its rows, without the rows in which it
/// is NULL.
///
/// \param connection  null: one is opened for this query
/// \param query       text of the query
/// \param list        receives an array of texts that ends with a null entry, owned
///                    by the caller (db_free_list()); null after a failure
/// \return 0 or -1
int db_query_list(struct st_mysql* connection, const char* query, char*** list);

/// The four queries, like db_query_list(). Names go into the query AS THEY ARE, between
/// single quotes: a quote or a backslash in a name changes the query. Pass only names that
/// have been validated; db_is_safe_name() is a sufficient check.
int db_get_domain_aliases(struct st_mysql* connection, const char* domain, char*** list);
int db_get_mail_aliases(struct st_mysql* connection, const char* name, const char* domain,
                        char*** list);
int db_get_mail_names(struct st_mysql* connection, const char* domain, char*** list);
int db_get_domain_by_alias(struct st_mysql* connection, const char* alias, char*** list);

/// Frees a list with all its texts; null is allowed.
void db_free_list(char** list);

/// Whether a name is safe in the four queries.
///
/// \return 1 when it is not empty and consists only of ASCII letters, digits, "-", ".",
///         "_", "+", "=" and "@"; otherwise 0, also for null
int db_is_safe_name(const char* name);

#ifdef __cplusplus
} // extern "C"
#endif
