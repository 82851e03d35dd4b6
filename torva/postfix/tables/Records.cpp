#include "torva/postfix/tables/Records.h"

#include <stdexcept>

namespace torva::mail::postfix {

std::string tableFile(const std::string& table) {
    // Without a colon, npos + 1 is 0, and the whole name is the path.
    return table.substr(table.find(':') + 1);
}

void requireTableName(const std::string& table) {
    const std::string::size_type colon = table.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == table.size() ||
        table.front() == '-') {
        throw std::invalid_argument("not a table: " + table);
    }
}

} // namespace torva::mail::postfix
