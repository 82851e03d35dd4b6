#include "AllocationLimit.h"

#include <cstddef>
#include <cstdlib>

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
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
