// A chain of filters for the listing of a table, as "postmap -s" prints it, that passes
// on what is to stay: DataStreamFilter.h cuts the bytes into lines, ElementsFilter splits
// a line, ValueListFilter its value. At the end of the chain is a test of one text: true
// keeps it. The test for mail domains is NotInDomainFilter.h; the result is used in
// TableRewrite.h.
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

    /// Whether a character separates elements; a run of separators counts as one.
    static bool isListSep(char c) {
        return c == ',' || std::isspace(static_cast<unsigned char>(c)) != 0;
    }

    /// Drops the elements that the test rejects. When any is dropped, the others are
    /// joined with ", "; otherwise the value stays as it is, byte for byte.
    ///
    /// \return whether any element is kept
    bool operator()(std::string& value) const;

private:
    Test test_;
};

/// Decides about one line of a listing.
template <class Test>
class ElementsFilter {
public:
    explicit ElementsFilter(const Test& test) : keyTest_(test), valueFilter_(test) {}

    /// Whether the line stays: its key passes the test, and so does at least one element
    /// of its value. The value may lose elements; the key and the separator never change.
    /// A line that is not a record is dropped and reported on std::clog. A line that begins
    /// with a double quote stays as it is, byte for byte, and is reported on std::clog: its
    /// key may contain blanks, so that its end is unknown.
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
        // From a separator at either end of the value.
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
