// Keeps the panel's Postfix tables in step with the panel's mail domains. What a
// domain holds is read from the panel's database (torva/maildb/panel_db.h), the tables
// are written through RecordCache.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include "torva/postfix/tables/Records.h"

#include <string>

namespace torva::mail::postfix {

class DomainManager {
public:
    /// Makes a second name an alias domain of a mail domain, in the panel's virtual
    /// table: the reserved addresses of the alias are delivered locally, and each
    /// mail name and mail alias of the domain is, at the alias, the mail name at the
    /// domain.
    ///
    /// \param domain  existing mail domain; goes into database queries as it is
    /// \param alias   the second name
    /// \return the alias as an entry of a table of domains, its value "1"; not written
    ///         anywhere here
    /// \throws the errors of putRecords()
    /// A database that cannot be read is reported by its own layer and only reduces
    /// what is written: the reserved addresses always are.
    Records addAliasDomain(const std::string& domain, const std::string& alias);
};

} // namespace torva::mail::postfix
