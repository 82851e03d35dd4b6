#include "torva/postfix/params/ListValue.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>

namespace torva::mail::postfix {

namespace {

bool holds(const std::vector<std::string>& elements, const std::string& element) {
    return std::find(elements.begin(), elements.end(), element) != elements.end();
}

} // namespace

std::vector<std::string> splitList(const std::string& value) {
    std::vector<std::string> elements;
    boost::algorithm::split(elements, value, boost::algorithm::is_any_of(" \t,"),
                            boost::algorithm::token_compress_on);
    // A separator at either end leaves an empty element there.
    elements.erase(std::remove(elements.begin(), elements.end(), std::string()), elements.end());
    return elements;
}

std::vector<std::string> splitAtCommas(const std::string& value) {
    std::vector<std::string> elements;
    boost::algorithm::split(elements, value, boost::algorithm::is_any_of(","));
    for (std::string& element : elements) {
        boost::algorithm::trim(element);
    }
    elements.erase(std::remove(elements.begin(), elements.end(), std::string()), elements.end());
    return elements;
}

std::string joinList(const std::vector<std::string>& elements) {
    std::string joined;
    for (const std::string& element : elements) {
        if (!joined.empty()) {
            joined += ", ";
        }
        joined += element;
    }
    return joined;
}

bool listHolds(const std::string& list, const std::string& element) {
    return holds(splitList(list), element);
}

std::optional<std::string> withElement(const std::string& list, const std::string& element) {
    const std::vector<std::string> elements = splitList(list);
    if (holds(elements, element)) {
        return std::nullopt;
    }
    return elements.empty() ? element : list + ", " + element;
}

std::optional<std::string> withoutElement(const std::string& list, const std::string& element) {
    std::vector<std::string> elements = splitList(list);
    const auto kept = std::remove(elements.begin(), elements.end(), element);
    if (kept == elements.end()) {
        return std::nullopt;
    }
    elements.erase(kept, elements.end());
    return joinList(elements);
}

std::optional<std::string> withRestriction(const std::string& list,
                                           const std::string& restriction) {
    if (holds(splitAtCommas(list), restriction)) {
        return std::nullopt;
    }
    return list.empty() ? restriction : list + ", " + restriction;
}

} // namespace torva::mail::postfix
