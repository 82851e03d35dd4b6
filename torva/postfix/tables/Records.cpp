#include "torva/postfix/tables/Records.h"

namespace torva::mail::postfix {

std::string tableFile(const std::string& table) {
    // npos + 1 is 0: a name without a type is the path itself.
    return table.substr(table.find(':') + 1);
}

} // namespace torva::mail::postfix
