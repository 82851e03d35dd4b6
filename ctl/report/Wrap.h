// Breaks a text into lines for a terminal. Pure text work.
#pragma once

#include <cstddef>
#include <string>

namespace torva::ctl {

/// The text, with blanks replaced by line breaks so that no line is longer than a width; a
/// single longer word stays whole.
///
/// \param indent  number of blanks at the beginning of every line but the first, which
///                begins in that column
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent);

} // namespace torva::ctl
