// Keeps the panel's Postfix tables in step with the panel's mail domains. The contents of
// a domain are read from the panel's database (torva/maildb/panel_db.h); the tables are
// written through RecordCache.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

#include <string>

namespace torva::mail::postfix {

class DomainManager {
public:
    /// Makes a name an alias domain of a mail domain, in the panel's virtual table: the
    /// reserved addresses at the alias (postmaster, mailer-daemon, root, anonymous, drweb)
    /// are delivered locally, and each mail name and mail alias at the alias leads to the
    /// mail name at the domain.
    ///
    /// \param domain  existing mail domain; used in database queries as in panel_db.h
    /// \param alias   the second name
    /// \return the alias as a record for a table of domains, with the value "1"; it is not
    ///         written to any table
    /// \throws as putRecords()
    /// A database that cannot be read is no error: panel_db.h reports it, and the records
    /// that depend on it are missing. The reserved addresses are always written.
    Records addAliasDomain(const std::string& domain, const std::string& alias);
};

} // namespace torva::mail::postfix
