// Memory that runs out at a chosen moment: this executable's own malloc, calloc and
// realloc, which call the C library's and count. Under AddressSanitizer, which has its
// own allocator, there are no faults: see allocation_faults_work.
#pragma once

#include "support/Sanitizer.h"

#include <cstddef>
#include <cstdint>

namespace torva::test {

constexpr bool allocation_faults_work = TORVA_TEST_ASAN == 0;

constexpr const char* no_allocation_faults =
    "memory cannot be made to run out under AddressSanitizer's allocator";

/// Blocks of memory that this program has been given and has not freed; 0 where there are
/// no faults.
long allocatedBlocks();

/// While it exists, allocations of `smallest` to `largest` bytes fail.
class AllocationFaults {
public:
    explicit AllocationFaults(std::size_t smallest, std::size_t largest = SIZE_MAX);
    ~AllocationFaults();
    AllocationFaults(const AllocationFaults&) = delete;
    AllocationFaults& operator=(const AllocationFaults&) = delete;

    /// While it exists, nothing fails: for code that is not under test.
    class Pause {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

    private:
        std::size_t largest_;
    };
};

/// While it exists, an allocation that succeeds leaves errno at a value of its own, as
/// malloc(3) may. (That free(3) leaves errno alone, the compiler takes for granted.)
class DisturbedErrno {
public:
    explicit DisturbedErrno(int error);
    ~DisturbedErrno();
    DisturbedErrno(const DisturbedErrno&) = delete;
    DisturbedErrno& operator=(const DisturbedErrno&) = delete;
};

/// Counts the blocks with a text in them that are freed while it exists. There is one at
/// a time.
class FreedTexts {
public:
    explicit FreedTexts(const char* text); ///< must outlive it
    ~FreedTexts();
    FreedTexts(const FreedTexts&) = delete;
    FreedTexts& operator=(const FreedTexts&) = delete;

    int count() const;
};

} // namespace torva::test
