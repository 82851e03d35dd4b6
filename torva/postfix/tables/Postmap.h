// Lookup tables through postmap(1), the only program that opens an indexed table
// here. Tables are named as Postfix names them, "type:path". Each operation runs
// one postmap under the lock of the table's file, waiting for that lock, and feeds
// or reads it record by record. Creating a table is CreateTable.h; a cache
// of records in front of these operations is RecordCache.h.
//
// Keys and values go out as they are, "KEY VALUE\n": pass no key with white space
// and neither with a line break. Every operation passes on the SystemError of a
// postmap that could not be started and the errors of torva/util/FileLock.h, and
// throws std::invalid_argument "not a table: NAME" for a name that is not "type:path".
//
// An index file that somebody else may have planted does not get to postmap: a FIFO, a
// socket, a device, and, in a directory that another account may write, a symbolic link
// is removed. A second hard link there is removed by a rebuild, replaced by a copy of
// its own by put and delete, and left alone by a listing. What cannot be removed or
// copied is a SystemError. In a directory that only root and we may write, links are
// the administrator's, are followed, and stay.
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

/// Adds records to a table, or replaces them (postmap -r -i). No records, no
/// process.
///
/// \throws PostfixConfigurationError with postmap's own text, or "unknown error";
///         the records before the failing one may be in the table
/// The half-made index that a failing put leaves, or a killed one has left, is removed.
void putRecords(const std::string& table, const Records& records);
void putRecords(const std::string& table, const std::vector<Record>& records);
void putRecords(const std::string& table, const std::map<std::string, std::string>& records);
void putRecords(const std::string& table, std::initializer_list<Record> records);

/// Deletes keys from a table (postmap -d -); a key that is not there is no error.
/// No keys, no process.
///
/// \throws PostfixDatabaseError with postmap's own text, or "unknown error"
void deleteKeys(const std::string& table, const Keys& keys);

/// Decides what dumpTable() keeps; an empty function keeps all.
struct RecordFilter {
    boost::function<bool(const std::string& key)> key;
    boost::function<bool(std::string& value)> value; ///< may change the value it keeps
};

/// Lists a table (postmap -s): the records that the filter keeps, in the order of
/// the listing. A line that is no record is reported on std::clog and skipped, and
/// a key without a value yields none.
///
/// \throws PostfixConfigurationError as putRecords()
Records dumpTable(const std::string& table, const RecordFilter& filter = RecordFilter());

/// Builds the indexed table from its source file (postmap). Half-made indexes are
/// removed as by putRecords(). A source with a second hard link, in a directory that
/// another account may write, becomes a copy of its own.
///
/// \throws PostfixConfigurationError as putRecords(); "unable to open PATH: it may have
///         been planted by another account": the source is no regular file, or a
///         symbolic link in such a directory
void rebuildTable(const std::string& table);

} // namespace torva::mail::postfix
