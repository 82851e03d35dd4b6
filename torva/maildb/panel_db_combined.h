// Changes to the mail-authentication database (torva/maildb/mail_auth.h) that are repeated
// for every alias of a domain or mail name in the panel's database
// (torva/maildb/panel_db.h). Nothing here throws. Every step that fails is reported through
// torva_log at level 3 and makes the result -1; the remaining steps still run, so that one
// bad record does not keep the others from being changed. Records that a failed query would
// have listed are left alone. An operation may be repeated: a mailbox that is gone already
// is no failure. A domain that is missing from the mail-authentication database is one,
// except for db_remove_auth_domain_by_alias().
//
// In all of them, when `connection` is null, each query opens its own; `type` is the mail
// server type of torva/maildb/mail_auth.h. Names go into queries AS THEY ARE: pass only
// names that have been validated, for example by db_is_safe_name().
#pragma once

struct st_mysql; // MYSQL of the client library

#ifdef __cplusplus
extern "C" {
#endif

/// Removes the mailbox of a mail name at a domain, then at each of its domain aliases.
int db_remove_mail_name(struct st_mysql* connection, int type, const char* name,
                        const char* domain);

/// The same for the mail name, then for each of its mail aliases.
int db_remove_mail_name_with_aliases(struct st_mysql* connection, int type, const char* name,
                                     const char* domain);

/// A change of one domain.
/// \param context  that of db_change_domain()
/// \return 0 or -1; must not throw
typedef int (*db_domain_change)(const char* domain, void* context);

/// Applies a change to a domain, then to each of its domain aliases.
///
/// \param what     the change in words, for "Unable to WHAT for domain ..."
/// \param context  passed to the change
int db_change_domain(struct st_mysql* connection, const char* domain, const char* what,
                     db_domain_change change, void* context);

/// Sets the password and status of a mail name at each domain alias; the domain itself
/// is left alone. Arguments as for mail_auth_set_user().
int db_set_mail_password(struct st_mysql* connection, int type, const char* name,
                         const char* domain, const char* password, int encrypted, int status);

/// Copies the authentication records of a domain's mail names and of their mail aliases,
/// with password and status, to the same names at another domain, which must exist in the
/// authentication database. When a record has both a plain and an encrypted password, the
/// plain one is copied, unless it is empty.
int db_clone_auth_records(struct st_mysql* connection, int type, const char* from, const char* to);

/// Removes a domain alias with its mailboxes: those of the mail names of its real domain
/// and of their mail aliases, then the alias itself. The real domain and its mailboxes
/// stay.
///
/// \return 0 also, without a report, when the authentication database has no such domain:
///         it has been removed before
/// Nothing is removed, and the result is -1, when the panel's database cannot be queried
/// for the real domain, or does not know the name as a domain alias: it may be a real
/// domain itself. A removal can therefore be repeated only until the alias is removed from
/// the panel's database. Nothing is removed either when the authentication database cannot
/// be queried.
int db_remove_auth_domain_by_alias(struct st_mysql* connection, int type, const char* alias);

#ifdef __cplusplus
} // extern "C"
#endif
