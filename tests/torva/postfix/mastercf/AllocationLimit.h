// Memory that runs out at a chosen moment: the operator new of the test executables
// of this folder.
#pragma once

#include <new>

namespace torva::mail::postfix::testing {

/// While it exists, the allocation that follows `allowed` others, and each after
/// it, throws std::bad_alloc.
class AllocationLimit {
public:
    explicit AllocationLimit(long allowed);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

/// Runs an operation with no memory, then with memory for one allocation, and so
/// on until it succeeds; after each failure, the check.
///
/// \return number of failures
template <class Operation, class Check>
long failEachAllocation(Operation operation, Check check) {
    for (long allowed = 0;; ++allowed) {
        try {
            const AllocationLimit limit(allowed);
            operation();
            return allowed;
        } catch (const std::bad_alloc&) {
            // The limit is gone with the block.
        }
        check();
    }
}

} // namespace torva::mail::postfix::testing
