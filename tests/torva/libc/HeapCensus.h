// Memory that calls leave allocated. The sanitizers also find leaks, but only in the tests that
// they are built for; this finds them in every build.
#pragma once

#include <cstddef>
#include <functional>
#include <malloc.h>

namespace torva::test {

/// Bytes per call that stay allocated, once the first calls have filled all caches.
inline std::size_t bytesLeftBy(const std::function<void()>& call) {
    const std::size_t calls = 100;
    std::size_t before = 0;
    for (std::size_t i = 0; i < 2 * calls; ++i) {
        if (i == calls) {
            before = ::mallinfo2().uordblks;
        }
        call();
    }
    const std::size_t after = ::mallinfo2().uordblks;
    return after > before ? (after - before) / calls : 0;
}

} // namespace torva::test
