// The mail-authentication database: domains and mailboxes with their passwords, in
// an SQLite file that the mail server reads and the panel writes. Nothing here
// throws: a failure is a message through torva_log and the result -1. The panel's
// own database, from which the records come, is torva/maildb/panel_db.h; changes that
// cover all alias names of a domain are torva/maildb/panel_db_combined.h.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Mail server types: the first argument of every operation.
enum { MAIL_SERVER_UNKNOWN = -1, MAIL_SERVER_QMAIL = 0, MAIL_SERVER_POSTFIX = 1 };

/// A mailbox as it was read; the texts are owned by the record.
struct mail_auth_user {
    char* name;               ///< from mail_auth_read_user() the local part, else the address
    char* password;           ///< in plain text; null when it is kept encrypted
    char* encrypted_password; ///< as the caller has encrypted it; null when it is kept plain
    int status;               ///< 0: enabled
    int domain_status;        ///< 0: enabled; -1: not asked for, by mail_auth_read_user()
};

/// Asks the panel's mail tool, PRODUCT_ROOT_D/admin/sbin/mtactl, which mail server
/// is installed.
///
/// \return MAIL_SERVER_QMAIL, MAIL_SERVER_POSTFIX, or MAIL_SERVER_UNKNOWN (reported)
int mail_auth_server_type(void);

/// Path of the database, a constant; null, reported, for an unknown type.
const char* mail_auth_db_path(int type);

/// Creates an empty database, with its directory, owners and modes: what stood at
/// the path is removed first. Needs root. The umask does not matter, and is not touched.
///
/// \return 0 or -1. Without the right to hand files over, without the account that is to
///         own them, or with no directory the old database stays. After a later failure it
///         may be gone; what is at the path then has no records, or is not ours: the owner
///         of the directory may exchange files at any moment, but is given none but ours.
int mail_auth_create_db(int type);

// All further operations work on an existing database and each opens and closes it
// for itself. Names are stored byte for byte, without case folding. While another
// process has the database locked they wait, until a signal handler interrupts the
// wait, which makes them fail. Whatever fails leaves the records as they were.
//
// The database and its journal must be regular files with one hard link, else they fail;
// links are followed in the directory part only. What a killed writer left half done is
// rolled back by whoever comes next and may write; until then the Postfix account, which
// may only read, is refused.

/// Adds a domain; one that exists already, or an empty name, is a failure.
/// \param status  0: enabled
int mail_auth_add_domain(int type, const char* domain, int status);

/// Finds a domain; one that is not there is a failure.
/// \param id      null, or receives its id
/// \param status  null, or receives its status
int mail_auth_find_domain(int type, const char* domain, long long* id, int* status);

/// Deletes a domain with all its mailboxes. 0 also when there is none.
int mail_auth_delete_domain(int type, const char* domain);

/// Renames a domain, its mailboxes with it; an empty new name is a failure. 0 also when
/// there is no such domain.
int mail_auth_rename_domain(int type, const char* old_name, const char* new_name);

/// Enables (0) or disables a domain. 0 also when there is none.
int mail_auth_set_domain_status(int type, const char* domain, int status);

// The operations on mailboxes split the address at its first "@"; without one, with
// nothing before or after it, or when the domain is not there, they fail.

/// Adds a mailbox, or replaces it whole.
/// \param password   text to store; null stores none
/// \param encrypted  0: it is plain text; else: it has been encrypted by the caller
/// \param status     0: enabled
int mail_auth_set_user(int type, const char* address, const char* password, int encrypted,
                       int status);

/// Reads a mailbox; one that is not there is a failure.
/// \param user  receives the record, to be given to mail_auth_free_user(); all null
///              and 0 on failure
int mail_auth_read_user(int type, const char* address, struct mail_auth_user* user);

/// Changes the local part of a mailbox. 0 also when there is no such mailbox.
/// \param new_name  local part, without "@"; empty is a failure
int mail_auth_rename_user(int type, const char* address, const char* new_name);

/// Deletes a mailbox. 0 also when there is none.
int mail_auth_delete_user(int type, const char* address);

/// What an authentication needs: as mail_auth_read_user(), with the domain's status
/// and the address as name.
int mail_auth_lookup(int type, const char* address, struct mail_auth_user* user);

/// Lists all mailboxes that have an address and a password; others are reported at
/// level 6 and skipped.
///
/// \param users  receives an array that ends with a record whose name is null, to be
///               given to mail_auth_free_list(); null on failure
/// \param count  null, or receives the number of mailboxes
int mail_auth_list(int type, struct mail_auth_user** users, size_t* count);

/// Frees the texts of a record, its passwords wiped first, and sets it to null and 0;
/// the record itself stays the caller's. Null is allowed.
void mail_auth_free_user(struct mail_auth_user* user);

/// The same for a whole list, and frees the list. Null is allowed.
void mail_auth_free_list(struct mail_auth_user* users);

#ifdef __cplusplus
} // extern "C"
#endif
