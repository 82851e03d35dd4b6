// Removes records from a lookup table by rule: the table is listed through a filter, and
// what passes becomes its new source. Adding and deleting single records is Postmap.h; the
// filters are ListingFilter.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include <boost/function.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Consumer for the bytes of the listing, which writes what is to stay to a stream.
using ListingConsumer = boost::function<void(const std::vector<char>& chunk)>;

/// Creates the consumer, given the stream of the new source.
using ListingFilterFor = boost::function<ListingConsumer(std::ostream& stream)>;

/// Lists a table (postmap -s), replaces its source file by what the filter writes, and
/// builds the indexed table from it (postmap), under the table's lock, for which it waits.
/// The source keeps its owner and its permission bits.
///
/// In a directory that only root and we may write, a source that is a symbolic link stays
/// one: its target is replaced. In a directory that another account may write, a link, or a
/// file with a second hard link, is itself replaced by a file of ours with mode 0644;
/// planted index files are removed (see Postmap.h).
///
/// The listing waits for the lock of the index, as dumpTable() in Postmap.h; the building
/// does not, as rebuildTable() there, with the same errors.
///
/// \param table       "type:path"
/// \param filterFor   called once
/// \throws PostfixConfigurationError with postmap's own text, or "unknown error"
/// \throws PostfixDatabaseError "unable to write PATH: somebody else has put another file
///         in its place"
/// \throws SystemError  no lock, a file cannot be written or renamed, or postmap not
///         started
/// \throws std::invalid_argument "not a table: NAME"
/// After an exception the source file and the indexed table are as before, with contents,
/// owner, permission bits and both times, and no other file is left.
void rewriteTable(const std::string& table, const ListingFilterFor& filterFor);

/// Removes a mail domain from a table: the records whose key is the domain or an address
/// in it, and, from the values of the others, the domain and its addresses. A record that
/// loses its last value is removed, too. A record with a quoted key is left as it is and
/// reported on std::clog.
///
/// \param subdomains  true: subdomains belong to the domain, too
/// \throws as rewriteTable()
void removeDomainFromTable(const std::string& table, const std::string& domain, bool subdomains);

} // namespace torva::mail::postfix
