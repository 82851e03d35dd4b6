// What calls leave allocated. The sanitizers find leaks, too, in the unit tests that they
// are built for; this finds them in every build that has the malloc of AllocationFaults.h.
#pragma once

#include "support/AllocationFaults.h"

#include <algorithm>
#include <functional>

namespace torva::test {

/// Blocks of memory per call that stay allocated. The first calls fill all caches, and one
/// that grows later on does so once: what counts is the least of several rounds.
inline long blocksLeftBy(const std::function<void()>& call) {
    const int calls = 20;
    const auto round = [&call] {
        const long before = allocatedBlocks();
        for (int i = 0; i < calls; ++i) {
            call();
        }
        return std::max(0L, allocatedBlocks() - before) / calls;
    };
    round();
    return std::min({round(), round(), round()});
}

} // namespace torva::test
