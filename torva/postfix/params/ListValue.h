// The lists in main.cf parameters: splitting a value, and the new text after a change.
// Pure text work; reading and writing the parameters is PostfixParameters.h. Elements
// are compared byte for byte: nothing in them is interpreted.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Elements between runs of blanks, tabs and commas; empty ones are dropped.
std::vector<std::string> splitList(const std::string& value);

/// Elements between commas, with white space trimmed from both ends; empty ones are
/// dropped. Elements of two words stay whole.
std::vector<std::string> splitAtCommas(const std::string& value);

/// The elements, joined with ", ".
std::string joinList(const std::vector<std::string>& elements);

/// Whether the element is in splitList(list).
bool listHolds(const std::string& list, const std::string& element);

/// The list with ", " and the element appended, its text otherwise unchanged; the element
/// alone when the list has none. Nothing when the element is in the list already.
std::optional<std::string> withElement(const std::string& list, const std::string& element);

/// The remaining elements, joined with ", "; nothing when no element equals the given one.
std::optional<std::string> withoutElement(const std::string& list, const std::string& element);

/// Like withElement(), for a list whose elements are separated by commas only. A list of
/// nothing but commas keeps them.
std::optional<std::string> withRestriction(const std::string& list, const std::string& restriction);

} // namespace torva::mail::postfix
