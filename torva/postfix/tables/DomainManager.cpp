#include "torva/postfix/tables/DomainManager.h"

#include "torva/maildb/panel_db.h"
#include "torva/postfix/tables/RecordCache.h"

#include <memory>

namespace torva::mail::postfix {

namespace {

const char virtualTable[] = "hash:/var/spool/postfix/torva/virtual";

const char* const reservedLocalParts[] = {"postmaster", "mailer-daemon", "root", "anonymous",
                                          "drweb"};

/// A result list of the panel database; empty when the query failed.
class QueryList {
public:
    QueryList() : list_(nullptr, &db_free_list) {}

    /// Takes ownership of the list that a query returned.
    explicit QueryList(char** list) : list_(list, &db_free_list) {}

    /// The texts, up to the null entry that ends them.
    char* const* begin() const { return list_.get(); }
    char* const* end() const {
        char* const* entry = list_.get();
        while (entry != nullptr && *entry != nullptr) {
            ++entry;
        }
        return entry;
    }

private:
    std::unique_ptr<char*, decltype(&db_free_list)> list_;
};

QueryList mailNames(const std::string& domain) {
    char** list = nullptr;
    return db_get_mail_names(nullptr, domain.c_str(), &list) == 0 ? QueryList(list) : QueryList();
}

QueryList mailAliases(const std::string& name, const std::string& domain) {
    char** list = nullptr;
    return db_get_mail_aliases(nullptr, name.c_str(), domain.c_str(), &list) == 0 ? QueryList(list)
                                                                                  : QueryList();
}

Records reservedAddresses(const std::string& alias) {
    Records records;
    for (const char* name : reservedLocalParts) {
        records.emplace_back(name + ("@" + alias), std::string(name) + "@localhost.localdomain");
    }
    return records;
}

Records mailNameAddresses(const std::string& domain, const std::string& alias) {
    Records records;
    for (const std::string name : mailNames(domain)) {
        const std::string mailbox = name + "@" + domain;
        for (const std::string other : mailAliases(name, domain)) {
            records.emplace_back(other + "@" + alias, mailbox);
        }
        records.emplace_back(name + "@" + alias, mailbox);
    }
    return records;
}

} // namespace

Records DomainManager::addAliasDomain(const std::string& domain, const std::string& alias) {
    RecordCache table(virtualTable, CacheMode::direct);
    table.put(reservedAddresses(alias));
    table.put(mailNameAddresses(domain, alias));
    return {{alias, "1"}};
}

} // namespace torva::mail::postfix
