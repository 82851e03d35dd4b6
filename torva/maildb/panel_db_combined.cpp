#include "torva/maildb/panel_db_combined.h"

#include "torva/libc/log.h"
#include "torva/maildb/format_text.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_auth_records.h"
#include "torva/maildb/panel_db.h"

#include <memory>

namespace {

using torva::maildb::format_text;
using torva::maildb::Search;
using torva::maildb::Text;

/// A result list of the panel's database.
class List {
public:
    List() = default;
    ~List() { db_free_list(entries_); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    char*** out() { return &entries_; }
    bool empty() const { return entries_ == nullptr || *entries_ == nullptr; }

    /// Calls the function with each text; never when the query has failed.
    template <typename Function>
    void for_each(Function function) const {
        for (char** entry = entries_; entry != nullptr && *entry != nullptr; ++entry) {
            function(static_cast<const char*>(*entry));
        }
    }

private:
    char** entries_ = nullptr;
};

/// Collects the results of several steps.
class Steps {
public:
    /// Records the result of a step; true when it failed and must be reported.
    bool failed(int result) {
        if (result != 0) {
            result_ = -1;
        }
        return result != 0;
    }
    int result() const { return result_; }

private:
    int result_ = 0;
};

Text make_address(const char* name, const char* domain) {
    return format_text("%s@%s", name, domain);
}

int delete_user(int type, const char* name, const char* domain) {
    const Text address = make_address(name, domain);
    return address == nullptr ? -1 : mail_auth_delete_user(type, address.get());
}

int set_user(int type, const char* name, const char* domain, const char* password, int encrypted,
             int status) {
    const Text address = make_address(name, domain);
    return address == nullptr
               ? -1
               : mail_auth_set_user(type, address.get(), password, encrypted, status);
}

/// Whether there is no password.
bool has_no_text(const char* password) {
    return password == nullptr || *password == '\0';
}

/// Copies one mailbox with one password.
int clone_user(int type, const char* name, const char* from, const char* to) {
    const Text address = make_address(name, from);
    mail_auth_user user{};
    if (address == nullptr || mail_auth_read_user(type, address.get(), &user) != 0) {
        return -1;
    }
    const bool encrypted = has_no_text(user.password) && !has_no_text(user.encrypted_password);
    const int result = set_user(type, name, to, encrypted ? user.encrypted_password : user.password,
                                encrypted ? 1 : 0, user.status);
    mail_auth_free_user(&user);
    return result;
}

void clone_reported(Steps& steps, int type, const char* name, const char* from, const char* to) {
    if (steps.failed(clone_user(type, name, from, to))) {
        torva_log(3, "Unable to clone auth record for %s@%s", name, from);
    }
}

void remove_mail_alias(Steps& steps, int type, const char* name, const char* alias_domain) {
    if (steps.failed(delete_user(type, name, alias_domain))) {
        torva_log(3, "Unable to remove mail alias %s@%s", name, alias_domain);
    }
}

/// Removes the mailboxes that a real domain has at one of its aliases.
void remove_mailboxes_at_alias(Steps& steps, st_mysql* connection, int type, const char* domain,
                               const char* alias_domain) {
    List names;
    if (steps.failed(db_get_mail_names(connection, domain, names.out()))) {
        torva_log(3, "Unable to get mailnames from domain %s", domain);
    }
    names.for_each([&](const char* name) {
        remove_mail_alias(steps, type, name, alias_domain);
        List aliases;
        if (steps.failed(db_get_mail_aliases(connection, name, domain, aliases.out()))) {
            torva_log(3, "Unable to get aliases for mailname %s@%s", name, domain);
        }
        aliases.for_each(
            [&](const char* alias) { remove_mail_alias(steps, type, alias, alias_domain); });
    });
}

} // namespace

int db_remove_mail_name(struct st_mysql* connection, int type, const char* name,
                        const char* domain) {
    Steps steps;
    const auto remove_at = [&](const char* at) {
        if (steps.failed(delete_user(type, name, at))) {
            torva_log(3, "Unable to remove mailname %s@%s", name, at);
        }
    };
    remove_at(domain);
    List aliases;
    if (steps.failed(db_get_domain_aliases(connection, domain, aliases.out()))) {
        torva_log(3, "Unable to get domain aliases for domain %s", domain);
    }
    aliases.for_each(remove_at);
    return steps.result();
}

int db_remove_mail_name_with_aliases(struct st_mysql* connection, int type, const char* name,
                                     const char* domain) {
    Steps steps;
    if (steps.failed(db_remove_mail_name(connection, type, name, domain))) {
        torva_log(3, "Unable to remove mailname from domain aliases");
    }
    List aliases;
    if (steps.failed(db_get_mail_aliases(connection, name, domain, aliases.out()))) {
        torva_log(3, "Unable to get mail aliases for mailname %s%s", name, domain);
    }
    aliases.for_each([&](const char* alias) {
        if (steps.failed(db_remove_mail_name(connection, type, alias, domain))) {
            torva_log(3, "Unable to remove mailname %s@%s", alias, domain);
        }
    });
    return steps.result();
}

int db_change_domain(struct st_mysql* connection, const char* domain, const char* what,
                     db_domain_change change, void* context) {
    Steps steps;
    if (steps.failed(change(domain, context))) {
        torva_log(3, "Unable to %s for domain %s", what, domain);
    }
    List aliases;
    if (steps.failed(db_get_domain_aliases(connection, domain, aliases.out()))) {
        torva_log(3, "Unable to get aliases for domain %s", domain);
    }
    aliases.for_each([&](const char* alias) {
        if (steps.failed(change(alias, context))) {
            torva_log(3, "Unable to %s for domain alias %s", what, alias);
        }
    });
    return steps.result();
}

int db_set_mail_password(struct st_mysql* connection, int type, const char* name,
                         const char* domain, const char* password, int encrypted, int status) {
    Steps steps;
    List aliases;
    if (steps.failed(db_get_domain_aliases(connection, domain, aliases.out()))) {
        torva_log(3, "Unable to get domain aliases for domain %s", domain);
    }
    aliases.for_each([&](const char* alias) {
        if (steps.failed(set_user(type, name, alias, password, encrypted, status))) {
            torva_log(3, "Unable to set password for mailname %s@%s", name, alias);
        }
    });
    return steps.result();
}

int db_clone_auth_records(struct st_mysql* connection, int type, const char* from, const char* to) {
    Steps steps;
    List names;
    if (steps.failed(db_get_mail_names(connection, from, names.out()))) {
        torva_log(3, "Unable to get mailnames from domain %s", from);
    }
    names.for_each([&](const char* name) {
        clone_reported(steps, type, name, from, to);
        List aliases;
        if (steps.failed(db_get_mail_aliases(connection, name, from, aliases.out()))) {
            torva_log(3, "Unable to get mail aliases for %s@%s", name, from);
        }
        aliases.for_each([&](const char* alias) { clone_reported(steps, type, alias, from, to); });
    });
    return steps.result();
}

int db_remove_auth_domain_by_alias(struct st_mysql* connection, int type, const char* alias) {
    List domains;
    const int asked = db_get_domain_by_alias(connection, alias, domains.out());
    if (asked != 0 || domains.empty()) {
        torva_log(3, "Unable to get domain by domain alias %s", alias);
        return -1; // it may be a real domain
    }
    const Search found = torva::maildb::search_domain(type, alias);
    if (found == Search::missing) {
        return 0;
    }
    if (found == Search::failed) {
        torva_log(3, "Unable to remove domain %s from auth database", alias);
        return -1;
    }
    Steps steps;
    domains.for_each([&](const char* domain) {
        remove_mailboxes_at_alias(steps, connection, type, domain, alias);
    });
    if (steps.failed(mail_auth_delete_domain(type, alias))) {
        torva_log(3, "Unable to remove domain %s from auth database", alias);
    }
    return steps.result();
}
