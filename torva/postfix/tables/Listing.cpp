#include "torva/postfix/tables/Listing.h"

#include <iostream>

namespace torva::mail::postfix {

std::optional<ListingLine> parseListingLine(const std::string& line) {
    static const char blanks[] = " \t";
    const std::string::size_type separator = line.find_first_of(blanks);
    if (separator == std::string::npos) {
        std::clog << "invalid key/value '" << line << "'" << std::endl;
        return std::nullopt;
    }
    ListingLine parsed{line.substr(0, separator), line.size(), std::string()};
    const std::string::size_type first = line.find_first_not_of(blanks, separator);
    if (first != std::string::npos) {
        parsed.valueStart = first;
        parsed.value = line.substr(first, line.find_last_not_of(blanks) - first + 1);
    }
    return parsed;
}

} // namespace torva::mail::postfix
