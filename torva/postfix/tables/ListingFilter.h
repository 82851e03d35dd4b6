// The chain that takes a listing of a table, as "postmap -s" prints it, and lets
// through what is to stay: DataStreamFilter.h cuts the bytes into lines,
// ElementsFilter takes a line apart, ValueListFilter its value. At the end of the
// chain stands a test of one text: true keeps it. The test that the domain manager
// uses is NotInDomainFilter.h; what becomes of the survivors is TableRewrite.h.
#pragma once

#include "torva/postfix/tables/Listing.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <cctype>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace torva::mail::postfix::database {

/// Keeps the elements of a value that the test keeps.
template <class Test>
class ValueListFilter {
public:
    explicit ValueListFilter(Test test) : test_(std::move(test)) {}

    /// Whether a character stands between elements; a run of them counts as one.
    static bool isListSep(char c) {
        return c == ',' || std::isspace(static_cast<unsigned char>(c)) != 0;
    }

    /// Drops what the test rejects. When something goes, what stays is joined with
    /// ", "; else the value is left as it is, to the byte.
    ///
    /// \return whether any element is kept
    bool operator()(std::string& value) const;

private:
    Test test_;
};

/// Judges one line of a listing.
template <class Test>
class ElementsFilter {
public:
    explicit ElementsFilter(const Test& test) : keyTest_(test), valueFilter_(test) {}

    /// Whether the line stays: its key passes the test, and an element of its value
    /// does. The value in the line may lose elements; the key and what separates
    /// the two never change. A line that is no record goes, with a line on
    /// std::clog. A line that begins with a double quote stays as it is, to the byte,
    /// with a line on std::clog: its key may hold blanks and need not end at the first.
    bool operator()(std::string& line) const;

private:
    Test keyTest_;
    ValueListFilter<Test> valueFilter_;
};

template <class Test>
bool ValueListFilter<Test>::operator()(std::string& value) const {
    std::vector<std::string> elements;
    boost::algorithm::split(elements, value, &ValueListFilter::isListSep,
                            boost::algorithm::token_compress_on);
    std::string kept;
    bool dropped = false;
    for (const std::string& element : elements) {
        // Left by a separator at either end of the value.
        if (element.empty()) {
            continue;
        }
        if (!test_(element)) {
            dropped = true;
            continue;
        }
        if (!kept.empty()) {
            kept += ", ";
        }
        kept += element;
    }
    if (dropped) {
        value = kept;
    }
    return !kept.empty();
}

template <class Test>
bool ElementsFilter<Test>::operator()(std::string& line) const {
    if (!line.empty() && line.front() == '"') {
        std::clog << "quoted key left as it is '" << line << "'" << std::endl;
        return true;
    }
    auto parsed = parseListingLine(line);
    if (!parsed || !keyTest_(parsed->key) || parsed->value.empty()) {
        return false;
    }
    std::string value = parsed->value;
    if (!valueFilter_(value)) {
        return false;
    }
    if (value != parsed->value) {
        line.replace(parsed->valueStart, std::string::npos, value);
    }
    return true;
}

} // namespace torva::mail::postfix::database
