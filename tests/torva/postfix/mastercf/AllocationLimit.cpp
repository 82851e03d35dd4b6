#include "AllocationLimit.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace torva::mail::postfix::testing {

namespace {

long left = -1; // negative: no limit

} // namespace

AllocationLimit::AllocationLimit(long allowed) {
    left = allowed;
}

AllocationLimit::~AllocationLimit() {
    left = -1;
}

static void* allocate(std::size_t size) {
    if (left == 0) {
        throw std::bad_alloc();
    }
    if (left > 0) {
        --left;
    }
    void* memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace torva::mail::postfix::testing

void* operator new(std::size_t size) {
    return torva::mail::postfix::testing::allocate(size);
}
// The library's sorting algorithms ask in this way.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return torva::mail::postfix::testing::allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
