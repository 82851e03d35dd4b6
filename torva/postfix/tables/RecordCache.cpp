#include "torva/postfix/tables/RecordCache.h"

#include "torva/util/PostfixError.h"

#include <new>

namespace torva::mail::postfix {

RecordCache::RecordCache(const std::string& table, CacheMode mode) : table_(table), mode_(mode) {}

// Without the name of a table, the records could never be written.
void RecordCache::requireName() const {
    if (table_.empty()) {
        throw PostfixDatabaseError("unable to form record cache");
    }
}

RecordCache::Collection& RecordCache::collection() {
    requireName();
    return pending_[table_];
}

void RecordCache::put(const Records& records) {
    if (mode_ == CacheMode::direct) {
        putRecords(table_, records);
        return;
    }
    try {
        Collection& pending = collection();
        for (const Record& record : records) {
            const auto known = pending.positions.find(record.first);
            if (known != pending.positions.end()) {
                known->second->second = record.second;
                continue;
            }
            pending.records.push_back(record);
            try {
                pending.positions.emplace(record.first, std::prev(pending.records.end()));
            } catch (...) {
                pending.records.pop_back();
                throw;
            }
        }
    } catch (const std::bad_alloc&) {
        throw PostfixDatabaseError("unable to form record cache");
    }
}

void RecordCache::remove(const Keys& keys) {
    if (mode_ == CacheMode::direct) {
        deleteKeys(table_, keys);
        return;
    }
    Collection& pending = collection();
    for (const std::string& key : keys) {
        const auto known = pending.positions.find(key);
        if (known != pending.positions.end()) {
            pending.records.erase(known->second);
            pending.positions.erase(known);
        }
    }
}

Records RecordCache::list(const RecordFilter& filter) const {
    if (mode_ == CacheMode::direct) {
        return dumpTable(table_, filter);
    }
    requireName();
    Records kept;
    const auto pending = pending_.find(table_);
    if (pending == pending_.end()) {
        return kept;
    }
    for (const Record& record : pending->second.records) {
        std::string value = record.second;
        if ((!filter.key || filter.key(record.first)) && (!filter.value || filter.value(value))) {
            kept.emplace_back(record.first, value);
        }
    }
    return kept;
}

void RecordCache::flush() {
    const auto pending = pending_.find(table_);
    if (pending != pending_.end()) {
        putRecords(table_, pending->second.records);
        pending_.erase(pending);
    }
}

} // namespace torva::mail::postfix
