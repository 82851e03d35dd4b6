#include "torva/util/UtilityErrorStream.h"

#include "torva/util/SigpipeHold.h"

#include <iostream>
#include <new>

namespace torva {

// After <iostream>, so that std::cerr and std::cout outlive it.
UtilityErrorStream utilityErrorStream;

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        return c;
    }
    // If one reader is gone, that must not end the process or the other copy.
    const SigpipeHold hold;
    const char ch = traits_type::to_char_type(c);
    std::cerr.put(ch);
    try {
        pending += ch;
    } catch (const std::bad_alloc&) { // NOLINT(bugprone-empty-catch)
        // The copy is lost; an exception would also lose the rest on standard error.
    }
    return c;
}

int UtilityErrorStreamBuf::sync() {
    const SigpipeHold hold;
    std::cerr.flush();
    std::cout.write(pending.data(), static_cast<std::streamsize>(pending.size()));
    std::cout.flush();
    pending.clear();
    return 0;
}

// The base is constructed before the buffer, so it gets none at first.
UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) {
    rdbuf(&buf_);
}

UtilityErrorStream::~UtilityErrorStream() = default;

} // namespace torva
