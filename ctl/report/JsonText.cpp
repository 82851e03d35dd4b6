#include "ctl/report/JsonText.h"

#include <stdexcept>

namespace torva::ctl {

std::string textOfBytes(const std::string& bytes) {
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x80) {
            text += character;
        } else {
            // U+0080 to U+00FF take two bytes in UTF-8.
            text += static_cast<char>(0xc0 | (byte >> 6));
            text += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    return text;
}

std::string bytesOfText(const std::string& text) {
    std::string bytes;
    for (std::string::size_type at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            bytes += text[at];
            continue;
        }
        ++at;
        if ((byte != 0xc2 && byte != 0xc3) || at == text.size()) {
            throw std::runtime_error("a character beyond U+00FF");
        }
        const auto low = static_cast<unsigned char>(text[at]);
        bytes += static_cast<char>(((byte & 0x03) << 6) | (low & 0x3f));
    }
    return bytes;
}

} // namespace torva::ctl
