// Breaking a text into lines for a terminal. Pure text work.
#pragma once

#include <cstddef>
#include <string>

namespace torva::ctl {

/// The text, with line breaks in place of blanks so that no line is longer than a
/// width; a single word that is longer stays whole.
///
/// \param indent  number of blanks at the begin of every line but the first, which
///                begins in that column
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent);

} // namespace torva::ctl
