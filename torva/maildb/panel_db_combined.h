// Changes of the mail-authentication database (torva/maildb/mail_auth.h) that are repeated
// for every alias name of a domain or mail name, as the panel's database
// (torva/maildb/panel_db.h) tells them. Nothing here throws. Every step that fails is
// reported through torva_log at level 3 and makes the result -1; the steps after it
// still run, so that one bad record does not keep the others from their change. What a
// failed query would have listed is left alone. Each may be repeated: a mailbox that is
// gone already is no failure, a domain that is not there is.
//
// In all of them `connection` may be null, then each query opens one of its own;
// `type` is the mail server type of torva/maildb/mail_auth.h; names go into queries AS THEY
// ARE: pass only names that have been validated, as by db_is_safe_name().
#pragma once

struct st_mysql; // MYSQL of the client library

#ifdef __cplusplus
extern "C" {
#endif

/// Removes the mailbox of a mail name at a domain, then at each of its domain aliases.
int db_remove_mail_name(struct st_mysql* connection, int type, const char* name,
                        const char* domain);

/// Does so for the mail name, then for each of its mail aliases.
int db_remove_mail_name_with_aliases(struct st_mysql* connection, int type, const char* name,
                                     const char* domain);

/// A change of one domain.
/// \param context  what was given to db_change_domain()
/// \return 0 or -1; throws nothing
typedef int (*db_domain_change)(const char* domain, void* context);

/// Applies a change to a domain, then to each of its domain aliases.
///
/// \param what     the change in words, for "Unable to WHAT for domain ..."
/// \param context  handed to the change as it is
int db_change_domain(struct st_mysql* connection, const char* domain, const char* what,
                     db_domain_change change, void* context);

/// Sets the password and status of a mail name at each domain alias; the domain itself
/// is left alone. Arguments as for mail_auth_set_user().
int db_set_mail_password(struct st_mysql* connection, int type, const char* name,
                         const char* domain, const char* password, int encrypted, int status);

/// Copies the authentication records of a domain's mail names and of their mail aliases,
/// with the same single password and status, to the same names at another domain, which
/// the authentication database must know. A record that has both passwords keeps the
/// plain one, unless that is empty.
int db_clone_auth_records(struct st_mysql* connection, int type, const char* from, const char* to);

/// Removes a domain alias with its mailboxes: those of the mail names of its real domain
/// and of their mail aliases, then the alias itself. The real domain and its mailboxes
/// stay.
///
/// \return 0 also, quietly, when the authentication database has no such domain: it has
///         been removed before
/// Nothing is removed, and the result is -1, when the panel's database cannot be asked for
/// the real domain, or answers that the name is no domain alias: it may be a real domain
/// itself. A second removal must therefore come before the panel forgets the alias.
/// Nothing is removed either when the authentication database cannot be asked.
int db_remove_auth_domain_by_alias(struct st_mysql* connection, int type, const char* alias);

#ifdef __cplusplus
} // extern "C"
#endif
