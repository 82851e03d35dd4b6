// What the fuzzers share: how a violated property is reported, and how an input is cut
// into pieces. Each fuzzer defines libFuzzer's entry point.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace torva::fuzz {

/// Ends the process, and libFuzzer keeps the input, unless a property holds.
///
/// \param property  its name in one sentence
inline void require(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "property broken: %s\n", property);
        std::abort();
    }
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return std::string(data, data + size);
}

/// The lines between line feeds; what follows the last one is a line, too.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines(1);
    for (const char c : text) {
        if (c == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += c;
        }
    }
    return lines;
}

/// The ways in which a text is cut: whole, byte by byte, in pieces whose lengths are
/// taken from the text itself, and, if it is short, in two at each place.
inline std::vector<std::vector<std::string>> cuttings(const std::string& text) {
    std::vector<std::vector<std::string>> ways{{text}};
    const auto cut = [&](auto lengthAt) {
        std::vector<std::string> pieces;
        for (std::size_t at = 0; at < text.size(); at += pieces.back().size()) {
            pieces.push_back(text.substr(at, lengthAt(at)));
        }
        ways.push_back(pieces);
    };
    cut([](std::size_t) { return std::size_t{1}; });
    cut([&](std::size_t at) { return 1 + static_cast<unsigned char>(text[at]) % std::size_t{23}; });
    const std::size_t shortText = 40;
    for (std::size_t at = 0; text.size() <= shortText && at <= text.size(); ++at) {
        ways.push_back({text.substr(0, at), text.substr(at)});
    }
    return ways;
}

} // namespace torva::fuzz
