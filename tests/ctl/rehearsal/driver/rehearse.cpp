// rehearse DIRECTORY HOSTNAME [no-network]: calls rehearse() and prints its findings, a
// JSON object a line. Inside scripts/sandbox.
#include "ctl/rehearsal/Rehearsal.h"

#include <exception>
#include <iostream>
#include <string>

using torva::ctl::Finding;
using torva::ctl::Level;

namespace {

std::string quoted(const std::string& text) {
    static const char* const digits = "0123456789abcdef";
    std::string result = "\"";
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (letter == '"' || letter == '\\') {
            result += '\\';
            result += letter;
        } else if (byte < ' ') {
            result += "\\u00";
            result += digits[byte >> 4];
            result += digits[byte & 15];
        } else {
            result += letter;
        }
    }
    return result + "\"";
}

const char* nameOf(Level level) {
    switch (level) {
    case Level::ok:
        return "ok";
    case Level::warning:
        return "warning";
    case Level::stop:
        return "stop";
    case Level::done:
        return "done";
    case Level::failed:
        return "failed";
    }
    return "";
}

} // namespace

int main(int argc, char** argv) try {
    if (argc < 3) {
        std::cerr << "usage: rehearse DIRECTORY HOSTNAME [no-network]\n";
        return 2;
    }
    for (const Finding& finding : torva::ctl::rehearse({argv[1], argv[2], argc == 3})) {
        std::cout << "{\"level\": \"" << nameOf(finding.level)
                  << "\", \"subject\": " << quoted(finding.subject)
                  << ", \"text\": " << quoted(finding.text)
                  << ", \"advice\": " << quoted(finding.advice) << "}\n";
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << "rehearse: " << error.what() << '\n';
    return 1;
}
