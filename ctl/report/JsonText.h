// Bytes in JSON, which knows text only. Every byte above ASCII stands as the character
// of its number, so that nothing is lost and every reader takes it.
#pragma once

#include <string>

namespace torva::ctl {

/// The bytes as UTF-8 text, for a JSON value or key.
std::string textOfBytes(const std::string& bytes);

/// The way back.
///
/// \throws std::runtime_error  the text did not come from textOfBytes()
std::string bytesOfText(const std::string& text);

} // namespace torva::ctl
