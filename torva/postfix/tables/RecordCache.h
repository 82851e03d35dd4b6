// A cache of records in front of one table: in direct mode every operation runs postmap
// at once (Postmap.h), in collecting mode records wait for flush().
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

/// Whether operations go to the table or to the pending records.
enum class CacheMode { direct, collecting };

/// Not copyable. Records that were not flushed are dropped by the destructor.
class RecordCache {
public:
    /// \param table  "type:path"; when it is empty, put(), remove() and list() throw
    ///               PostfixDatabaseError "unable to form record cache" in collecting
    ///               mode, and flush() does nothing
    RecordCache(const std::string& table, CacheMode mode);
    RecordCache(const RecordCache&) = delete;
    RecordCache& operator=(const RecordCache&) = delete;

    /// Direct: putRecords(). Collecting: appends the records to the pending ones, in
    /// their order; one whose key is pending replaces the value there.
    ///
    /// \throws as putRecords(), in direct mode
    /// \throws PostfixDatabaseError "unable to form record cache": out of memory; the
    ///         first of the given records may be pending, the others are not
    void put(const Records& records);

    /// Direct: deleteKeys(). Collecting: removes the keys from the pending records and
    /// leaves the table alone.
    void remove(const Keys& keys);

    /// Direct: dumpTable(). Collecting: the pending records that the filter keeps.
    Records list(const RecordFilter& filter = RecordFilter()) const;

    /// Writes the pending records with one putRecords() and forgets them. Does nothing in
    /// direct mode.
    ///
    /// \throws as putRecords(); the records are still pending then
    void flush();

private:
    /// Records in their order, and the position of each key: merging n records takes time
    /// proportional to n.
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
