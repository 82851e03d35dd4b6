#include "ctl/host/Lists.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <iterator>

namespace torva::ctl {

namespace {

struct MapType {
    const char* name;
    const char* suffix; ///< of the file that is opened
    bool indexed;
};

const MapType mapTypes[] = {{"hash", ".db", true},
                            {"btree", ".db", true},
                            {"lmdb", ".lmdb", true},
                            {"cdb", ".cdb", true},
                            {"dbm", ".dir", true},
                            {"sdbm", ".dir", true},
                            {"pcre", "", false},
                            {"regexp", "", false},
                            {"cidr", "", false},
                            {"texthash", "", false},
                            // Their files tell where to ask.
                            {"mysql", "", false},
                            {"pgsql", "", false},
                            {"sqlite", "", false},
                            {"ldap", "", false},
                            {"mongodb", "", false},
                            {"memcache", "", false}};

const MapType* typeNamed(const std::string& name) {
    const auto* found = std::find_if(std::begin(mapTypes), std::end(mapTypes),
                                     [&](const MapType& type) { return name == type.name; });
    return found == std::end(mapTypes) ? nullptr : found;
}

bool isSeparator(char character) {
    return character == ' ' || character == '\t' || character == ',' || character == '\n' ||
           character == '\r';
}

bool isTypeCharacter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

} // namespace

std::vector<std::string> listElements(const std::string& value) {
    std::vector<std::string> elements;
    std::string element;
    int depth = 0;
    for (const char character : value) {
        depth += character == '{' ? 1 : character == '}' ? -1 : 0;
        if (depth <= 0 && isSeparator(character)) {
            if (!element.empty()) {
                elements.push_back(element);
            }
            element.clear();
        } else {
            element += character;
        }
    }
    if (!element.empty()) {
        elements.push_back(element);
    }
    return elements;
}

std::vector<MapReference> mapReferences(const std::string& value) {
    std::vector<MapReference> found;
    for (std::string::size_type colon = value.find(":/"); colon != std::string::npos;
         colon = value.find(":/", colon + 1)) {
        std::string::size_type begin = colon;
        while (begin > 0 && isTypeCharacter(value[begin - 1])) {
            --begin;
        }
        const std::string type = value.substr(begin, colon - begin);
        const std::string::size_type end =
            std::min(value.find_first_of(" \t\r\n,}", colon), value.size());
        if (typeNamed(boost::algorithm::to_lower_copy(type)) != nullptr) {
            found.push_back({type, value.substr(colon + 1, end - colon - 1)});
        }
    }
    return found;
}

std::vector<MapReference> tableElements(const std::string& value) {
    std::vector<MapReference> found;
    for (std::string element : listElements(value)) {
        while (boost::algorithm::starts_with(element, "proxy:")) {
            element.erase(0, element.find(':') + 1);
        }
        const std::string::size_type colon = element.find(':');
        const std::string type = element.substr(0, colon);
        const bool isType = std::all_of(type.begin(), type.end(), [](char character) {
            return isTypeCharacter(character) || character == '_' || character == '-' ||
                   (character >= '0' && character <= '9');
        });
        if (colon != std::string::npos && !type.empty() && isType) {
            found.push_back({type, element.substr(colon + 1)});
        }
    }
    return found;
}

std::string openedFile(const MapReference& map) {
    const MapType* type = typeNamed(map.type);
    return map.file + (type == nullptr ? "" : type->suffix);
}

bool isIndexName(const std::string& name) {
    return std::any_of(std::begin(mapTypes), std::end(mapTypes), [&](const MapType& type) {
        const std::string suffix = type.suffix;
        return type.indexed && name.size() > suffix.size() &&
               name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
    });
}

bool isIndexed(const std::string& type) {
    const MapType* found = typeNamed(type);
    return found != nullptr && found->indexed;
}

} // namespace torva::ctl
