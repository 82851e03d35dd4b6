#include "torva/util/Traceback.h"

#include "torva/util/Demangle.h"

#include <algorithm>
#include <cstdlib>
#include <execinfo.h>
#include <string>

namespace torva {

namespace {

/// "module(mangled+0x12) [0x34]" with the name demangled where that is possible.
std::string readableSymbol(const std::string& line) {
    const std::string::size_type open = line.find('(');
    if (open == std::string::npos) {
        return line;
    }
    const std::string::size_type plus = line.find('+', open + 1);
    if (plus == std::string::npos) {
        return line;
    }
    const DemangledName name(line.substr(open + 1, plus - open - 1).c_str());
    return name ? line.substr(0, open + 1) + name.get() + line.substr(plus) : line;
}

} // namespace

Traceback::Traceback(std::uint32_t skip_frames)
    : count(0), skip(skip_frames), frames(), symbols(nullptr) {
    count = static_cast<std::uint32_t>(std::max(0, ::backtrace(frames, frameLimit)));
}

Traceback::Traceback(const Traceback& other)
    : count(other.count), skip(other.skip), frames(), symbols(nullptr) {
    std::copy(other.frames, other.frames + frameLimit, frames);
}

Traceback& Traceback::operator=(const Traceback& other) {
    if (this != &other) {
        count = other.count;
        skip = other.skip;
        std::copy(other.frames, other.frames + frameLimit, frames);
        std::free(symbols);
        symbols = nullptr;
    }
    return *this;
}

Traceback::~Traceback() {
    std::free(symbols);
}

void Traceback::print(std::ostream& stream) const {
    if (count <= skip) {
        return;
    }
    if (symbols == nullptr) {
        symbols = ::backtrace_symbols(frames, static_cast<int>(count));
    }
    if (symbols != nullptr) {
        stream << "Traceback:" << std::endl;
        for (std::uint32_t i = skip; i < count; ++i) {
            stream << '\t' << readableSymbol(symbols[i]) << std::endl;
        }
    } else {
        stream << "Traceback addresses:" << std::endl;
        for (std::uint32_t i = skip; i < count; ++i) {
            stream << '\t' << frames[i] << std::endl;
        }
    }
}

} // namespace torva
