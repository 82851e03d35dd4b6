// Taking records out of a lookup table by rule: the table is listed through a
// filter, and what stays becomes its new source. Adding and deleting single records
// is Postmap.h; the filters are ListingFilter.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include <boost/function.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Consumer of the listing's bytes, which writes what stays to a stream.
using ListingConsumer = boost::function<void(const std::vector<char>& chunk)>;

/// Makes the consumer for the stream of the new source.
using ListingFilterFor = boost::function<ListingConsumer(std::ostream& stream)>;

/// Lists a table (postmap -s), replaces its source file by what the filter writes,
/// and builds the indexed table from it (postmap), under the table's lock, for
/// which it waits. The source keeps its owner and its permission bits.
///
/// A source that is a symbolic link stays one, in a directory that only root and we
/// may write: what it leads to is replaced. In a directory that somebody else may
/// write, a link is replaced itself, by a file of ours with mode 0644, and so is a file
/// with a second hard link; planted index files are removed (see Postmap.h).
///
/// \param table       "type:path"
/// \param filterFor   called once
/// \throws PostfixConfigurationError with postmap's own text, or "unknown error"
/// \throws PostfixDatabaseError  somebody else swapped the new source file
/// \throws SystemError  a file cannot be written or renamed, or postmap not started
/// \throws std::invalid_argument  no table name
/// On an exception the source file and the indexed table are as before, with content,
/// owner, permission bits and both times, and no other file is left.
void rewriteTable(const std::string& table, const ListingFilterFor& filterFor);

/// Takes everything that belongs to a mail domain out of a table: the records whose
/// key is the domain or an address of it, and its addresses in the values of the
/// others; a record that loses its last value goes.
///
/// \param subdomains  true: subdomains belong to the domain, too
/// \throws as rewriteTable()
void removeDomainFromTable(const std::string& table, const std::string& domain, bool subdomains);

} // namespace torva::mail::postfix
