// Whether a name is in one of Postfix's lists of domains, which hold names, files and tables:
// see mydestination in postconf(5).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace torva::ctl {

enum class Membership { no, yes, unknown };

/// Whether a table has a name.
using TableQuestion = std::function<Membership(const std::string& table, const std::string& name)>;

/// Whether a list has one of the names. Like Postfix, it takes the first element that does,
/// which decides against it after an odd number of "!"; reads the lists in files; and ignores
/// case.
///
/// \param names  in lower case
/// \return unknown: a file cannot be read, or a table cannot be asked
Membership membership(const std::vector<std::string>& names, const std::string& list,
                      const TableQuestion& ask);

/// Asks a table, with postmap(1), for at most five seconds. One behind proxymap(8) is asked
/// without it. None is asked that a question might change.
Membership askTable(const std::string& table, const std::string& name);

} // namespace torva::ctl
