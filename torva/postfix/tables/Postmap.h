// Lookup tables through postmap(1), which alone opens indexed tables here. Tables have
// Postfix's names, "type:path". Each operation waits for the lock of the table's file,
// runs one postmap under it, and feeds or reads it record by record. Creating a table is
// CreateTable.h; a cache of records in front of these operations is RecordCache.h.
//
// Keys and values are written as they are, "KEY VALUE\n": a key must not contain white
// space, and neither may contain a line break. Every operation can also throw the errors of
// runTool() (torva/postfix/params/PostfixTool.h) and of torva/util/FileLock.h, and
// std::invalid_argument "not a table: NAME" for a name that is not "type:path".
//
// An index file that another account may have planted never reaches postmap. A FIFO, a
// socket or a device is removed, and so is a symbolic link in a directory that another
// account may write. A second hard link in such a directory is removed by a rebuild,
// replaced by a separate copy by put and delete, and left alone by a listing. When
// removing or copying fails, SystemError is thrown. In a directory that only root and we
// may write, links are the administrator's: they are followed, and stay.
//
// putRecords(), deleteKeys() and dumpTable() wait for as long as another process holds
// postmap's own lock, that of the index, which everybody can who may read the index.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

#include <boost/function.hpp>

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Adds records to a table, or replaces them (postmap -r -i). Without records no process
/// is started.
///
/// \throws PostfixConfigurationError with postmap's own text, or "unknown error";
///         the records before the failing one may be in the table
/// An unfinished index that this put or an earlier, killed one leaves is removed.
void putRecords(const std::string& table, const Records& records);
void putRecords(const std::string& table, const std::vector<Record>& records);
void putRecords(const std::string& table, const std::map<std::string, std::string>& records);
void putRecords(const std::string& table, std::initializer_list<Record> records);

/// Deletes keys from a table (postmap -d -); a key that is not in it is no error. Without
/// keys no process is started.
///
/// \throws PostfixDatabaseError with postmap's own text, or "unknown error"
void deleteKeys(const std::string& table, const Keys& keys);

/// Decides what dumpTable() returns; an empty function keeps everything.
struct RecordFilter {
    boost::function<bool(const std::string& key)> key;
    boost::function<bool(std::string& value)> value; ///< may change a value that it keeps
};

/// Lists a table (postmap -s): the records that the filter keeps, in the order of the
/// listing. A key ends at the first blank or tab, even a quoted one. A line that is not a
/// record is reported on std::clog and skipped; a key without a value is skipped.
///
/// \throws PostfixConfigurationError as putRecords()
Records dumpTable(const std::string& table, const RecordFilter& filter = RecordFilter());

/// Builds the indexed table from its source file (postmap). Unfinished indexes are removed
/// as by putRecords(). A source with a second hard link, in a directory that another
/// account may write, is replaced by a separate copy.
///
/// An account that can only read the index cannot stop this by holding its lock; a process
/// that has it open for writing is waited for, up to ten seconds. For this the index (types "hash",
/// "btree", "lmdb", "cdb") is a new file each time, unless it has several hard links, and nobody
/// else may open it while postmap runs. Then it has its mode and owner again.
///
/// \throws PostfixConfigurationError with postmap's own text, or "unknown error"
/// \throws PostfixConfigurationError "unable to open PATH: it may have been planted by
///         another account": the source is a FIFO, a socket or a device, or a symbolic
///         link in such a directory
/// \throws PostfixDatabaseError "INDEX is locked by another process (fuser INDEX)": it has
///         several hard links, and so is not replaced
/// \throws SystemError "unable to replace INDEX": it is locked, and the disk is full, for
///         example; or "chmod": others cannot open the new index
void rebuildTable(const std::string& table);

} // namespace torva::mail::postfix
