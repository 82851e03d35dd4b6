#include "ctl/report/Wrap.h"

#include <algorithm>

namespace torva::ctl {

std::string wrapped(const std::string& text, std::size_t width, std::size_t indent) {
    std::string result;
    std::size_t column = indent;
    std::string::size_type at = 0;
    while (at < text.size()) {
        const std::string::size_type wordStart = text.find_first_not_of(' ', at);
        if (wordStart == std::string::npos) {
            break;
        }
        const std::string::size_type wordEnd = std::min(text.find(' ', wordStart), text.size());
        const std::size_t blanks = wordStart - at;
        const std::size_t size = wordEnd - wordStart;
        if (column > indent && column + blanks + size > width) {
            result += '\n';
            result.append(indent, ' ');
            column = indent;
        } else {
            result.append(blanks, ' ');
            column += blanks;
        }
        result.append(text, wordStart, size);
        column += size;
        at = wordEnd;
    }
    return result;
}

} // namespace torva::ctl
