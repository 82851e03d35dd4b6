// Text from elsewhere, such as the name of a file or a line of a log, made fit for a terminal.
#pragma once

#include <string>

namespace torva::ctl {

/// The text with each control character as "\xNN": it could command the terminal, or make
/// one line look like another. Line feeds and tabs stay. So does everything else, in UTF-8
/// or not; the control characters beyond ASCII (U+0080 to U+009F) are replaced in both.
std::string printable(const std::string& text);

/// The same, with line feeds replaced, too.
std::string oneLine(const std::string& text);

} // namespace torva::ctl
