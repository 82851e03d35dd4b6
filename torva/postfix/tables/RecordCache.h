// A cache of records in front of one table: in direct mode every operation goes to
// postmap at once (Postmap.h), in collecting mode records wait until flush().
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/Records.h"

#include <map>
#include <string>
#include <unordered_map>

namespace torva::mail::postfix {

/// Where the operations of a cache go.
enum class CacheMode { direct, collecting };

/// Not copyable. What was not flushed when the object goes is dropped.
class RecordCache {
public:
    /// \param table  "type:path"; when it is empty, put(), remove() and list() fail in
    ///               collecting mode with PostfixDatabaseError "unable to form record
    ///               cache", and flush() does nothing
    RecordCache(const std::string& table, CacheMode mode);
    RecordCache(const RecordCache&) = delete;
    RecordCache& operator=(const RecordCache&) = delete;

    /// Direct: putRecords(). Collecting: adds the records to the pending ones, in
    /// their order; one whose key is pending takes that place.
    ///
    /// \throws as putRecords(); PostfixDatabaseError "unable to form record cache"
    ///         when the collection cannot be made; the pending records of before are
    ///         kept then
    void put(const Records& records);

    /// Direct: deleteKeys(). Collecting: takes the keys out of the pending records;
    /// the table itself is not touched.
    void remove(const Keys& keys);

    /// Direct: dumpTable(). Collecting: the pending records that the filter keeps.
    Records list(const RecordFilter& filter = RecordFilter()) const;

    /// Writes the pending records with one putRecords() and forgets them; they stay
    /// when that fails. Nothing in direct mode.
    void flush();

private:
    /// Records in their order, and where each key stands: a merge of n records takes
    /// time proportional to n.
    struct Collection {
        Records records;
        std::unordered_map<std::string, Records::iterator> positions;
    };

    void requireName() const;
    Collection& collection();

    std::string table_;
    CacheMode mode_;
    std::map<std::string, Collection> pending_; ///< by table name
};

} // namespace torva::mail::postfix
