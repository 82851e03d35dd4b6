// Lists as main.cf parameters hold them: taking the text apart and making the text
// that a change asks for. Pure text work; reading and writing the parameters is
// PostfixParameters.h. Elements are compared byte for byte: nothing in them is
// interpreted.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Elements between runs of blanks, tabs and commas; empty ones are dropped.
std::vector<std::string> splitList(const std::string& value);

/// Elements between commas, white space at both ends trimmed; empty ones are
/// dropped. Elements of two words stay whole.
std::vector<std::string> splitAtCommas(const std::string& value);

/// The elements with ", " between them.
std::string joinList(const std::vector<std::string>& elements);

/// Whether splitList(list) holds the element.
bool listHolds(const std::string& list, const std::string& element);

/// The list with the element at its end, the rest of its text as it is; nothing
/// when it holds the element already.
std::optional<std::string> withElement(const std::string& list, const std::string& element);

/// The remaining elements, joined; nothing when no element equals the given one.
std::optional<std::string> withoutElement(const std::string& list, const std::string& element);

/// As withElement(), for a list whose elements are separated by commas alone.
std::optional<std::string> withRestriction(const std::string& list, const std::string& restriction);

} // namespace torva::mail::postfix
