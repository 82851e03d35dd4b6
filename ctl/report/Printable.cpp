#include "ctl/report/Printable.h"

#include <cstdio>

namespace torva::ctl {

namespace {

unsigned char byteAt(const std::string& text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

/// The number of bytes of the character of UTF-8 at a position; 1 for anything else.
std::size_t sizeAt(const std::string& text, std::size_t at) {
    const unsigned char lead = byteAt(text, at);
    const std::size_t size = lead < 0xc2 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    for (std::size_t next = 1; next < size; ++next) {
        if ((byteAt(text, at + next) & 0xc0U) != 0x80) {
            return 1;
        }
    }
    return size;
}

bool isControl(const std::string& text, std::size_t at, std::size_t size) {
    const unsigned char lead = byteAt(text, at);
    if (size == 1) {
        return lead < 0x20 || (lead >= 0x7f && lead < 0xa0);
    }
    return lead == 0xc2 && byteAt(text, at + 1) < 0xa0; // U+0080 to U+009F
}

std::string shown(const std::string& text, bool keepsLineFeeds) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t size = sizeAt(text, at);
        const bool isKept = text[at] == '\t' || (keepsLineFeeds && text[at] == '\n');
        const bool isShown = !isKept && isControl(text, at, size);
        for (const std::size_t end = at + size; at < end; ++at) {
            if (isShown) {
                char code[8];
                std::snprintf(code, sizeof(code), "\\x%02x", byteAt(text, at));
                result += code;
            } else {
                result += text[at];
            }
        }
    }
    return result;
}

} // namespace

std::string printable(const std::string& text) {
    return shown(text, true);
}

std::string oneLine(const std::string& text) {
    return shown(text, false);
}

} // namespace torva::ctl
