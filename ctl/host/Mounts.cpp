#include "ctl/host/Mounts.h"

#include <fstream>
#include <sstream>

namespace torva::ctl {

namespace {

/// mountinfo writes blanks and some other characters as a backslash and three octal digits.
std::string unescaped(const std::string& text) {
    std::string result;
    for (std::string::size_type at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(at + 1, 3), nullptr, 8));
            at += 3;
        } else {
            result += text[at];
        }
    }
    return result;
}

} // namespace

std::vector<std::string> mountPoints() {
    std::vector<std::string> points;
    std::ifstream mounts("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string field;
        for (int number = 0; number < 5; ++number) {
            fields >> field;
        }
        points.push_back(unescaped(field));
    }
    return points;
}

} // namespace torva::ctl
