// The mail-authentication database: domains and mailboxes with their passwords, in an
// SQLite file that the mail server reads and the panel writes. Nothing here throws: a
// failure is reported through torva_log, and the result is -1. The records come from the
// panel's own database, torva/maildb/panel_db.h; changes that cover all alias names of a
// domain are in torva/maildb/panel_db_combined.h.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Mail server types: the first argument of every operation.
enum { MAIL_SERVER_UNKNOWN = -1, MAIL_SERVER_QMAIL = 0, MAIL_SERVER_POSTFIX = 1 };

/// A mailbox as it was read; the record owns the texts.
struct mail_auth_user {
    char* name;               ///< from mail_auth_read_user() the local part, else the address
    char* password;           ///< in plain text; null when it is stored encrypted
    char* encrypted_password; ///< as the caller encrypted it; null when it is stored plain
    int status;               ///< 0: enabled
    int domain_status;        ///< 0: enabled; -1 from mail_auth_read_user(): not read
};

/// Asks the panel's mail tool, PRODUCT_ROOT_D/admin/sbin/mtactl, which mail server
/// is installed.
///
/// \return MAIL_SERVER_QMAIL, MAIL_SERVER_POSTFIX, or MAIL_SERVER_UNKNOWN (reported)
int mail_auth_server_type(void);

/// Path of the database, a constant; null, reported, for an unknown type.
const char* mail_auth_db_path(int type);

/// Creates an empty database, with its directory, owners and modes, after removing an
/// existing one. Needs root. The umask has no effect, and is not changed.
///
/// \return 0 or -1. The old database stays when the directory cannot be created, the
///         account that is to own the files does not exist, or we may not change owners.
///         After a later failure it may be gone; the file at the path, if any, then has no
///         records or is not ours: the owner of the directory may replace files at any
///         moment, but is made the owner of none but ours.
int mail_auth_create_db(int type);

// All other operations work on an existing database, which each opens and closes itself.
// Names are stored byte for byte, without case folding. While another process has the
// database locked, they wait; a signal handler that interrupts the wait makes them fail.
// An operation that fails leaves the records as they were.
//
// They fail unless the database and its journal are regular files with one hard link;
// symbolic links are followed only in the directory part of the path. An unfinished change
// of a killed writer is rolled back by the next process that may write; until then the
// Postfix account, which may only read, cannot open the database.

/// Adds a domain; an existing one, or an empty name, is a failure.
/// \param status  0: enabled
int mail_auth_add_domain(int type, const char* domain, int status);

/// Finds a domain; one that does not exist is a failure.
/// \param id      null, or receives its id
/// \param status  null, or receives its status
int mail_auth_find_domain(int type, const char* domain, long long* id, int* status);

/// Deletes a domain with all its mailboxes. 0 also when it does not exist.
int mail_auth_delete_domain(int type, const char* domain);

/// Renames a domain, which keeps its mailboxes; an empty new name, or that of another
/// domain, is a failure. 0 also when there is no domain of the old name.
int mail_auth_rename_domain(int type, const char* old_name, const char* new_name);

/// Enables (0) or disables a domain. 0 also when it does not exist.
int mail_auth_set_domain_status(int type, const char* domain, int status);

// The operations on mailboxes split the address at its first "@". They fail when there is
// none, when there is nothing before or after it, or when the domain does not exist.

/// Adds a mailbox, or replaces it completely.
/// \param password   text to store; null stores none
/// \param encrypted  0: it is plain text; otherwise the caller has encrypted it
/// \param status     0: enabled
int mail_auth_set_user(int type, const char* address, const char* password, int encrypted,
                       int status);

/// Reads a mailbox; one that does not exist is a failure.
/// \param user  receives the record, to be freed by mail_auth_free_user(); all null
///              and 0 after a failure
int mail_auth_read_user(int type, const char* address, struct mail_auth_user* user);

/// Changes the local part of a mailbox. 0 also when the mailbox does not exist.
/// \param new_name  local part; an empty one, one with "@", or that of another mailbox of
///                  the domain is a failure
int mail_auth_rename_user(int type, const char* address, const char* new_name);

/// Deletes a mailbox. 0 also when it does not exist.
int mail_auth_delete_user(int type, const char* address);

/// Reads what an authentication needs: like mail_auth_read_user(), but with the status of
/// the domain, and the address as name.
int mail_auth_lookup(int type, const char* address, struct mail_auth_user* user);

/// Lists all mailboxes that have an address and a password; others are reported at
/// level 6 and skipped.
///
/// \param users  receives an array that ends with a record whose name is null, to be
///               freed by mail_auth_free_list(); null after a failure
/// \param count  null, or receives the number of mailboxes; 0 after a failure
int mail_auth_list(int type, struct mail_auth_user** users, size_t* count);

/// Wipes the passwords of a record, frees its texts, and sets it to null and 0; the record
/// itself still belongs to the caller. Null is allowed.
void mail_auth_free_user(struct mail_auth_user* user);

/// Does so for a whole list, and frees the list. Null is allowed.
void mail_auth_free_list(struct mail_auth_user* users);

#ifdef __cplusplus
} // extern "C"
#endif
