// Bytes in JSON, which has only text. Every byte above ASCII becomes the character with its
// number, so that nothing is lost and every reader accepts it.
#pragma once

#include <string>

namespace torva::ctl {

/// The bytes as UTF-8 text, for a JSON value or key.
std::string textOfBytes(const std::string& bytes);

/// The reverse.
///
/// \throws std::runtime_error  the text is not from textOfBytes()
std::string bytesOfText(const std::string& text);

} // namespace torva::ctl
