#include "support/AllocationFaults.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <malloc.h>

namespace torva::test {

namespace {

std::size_t smallest_failing = SIZE_MAX;
std::size_t largest_failing = 0; // an empty range: nothing fails

std::atomic<long> allocated{0};

int left_errno = 0; // 0: errno is left alone

const char* watched_text = nullptr;
int freed_texts = 0;

} // namespace

long allocatedBlocks() {
    return allocated;
}

FreedTexts::FreedTexts(const char* text) {
    freed_texts = 0;
    watched_text = text;
}

FreedTexts::~FreedTexts() {
    watched_text = nullptr;
}

int FreedTexts::count() const {
    return freed_texts;
}

AllocationFaults::AllocationFaults(std::size_t smallest, std::size_t largest) {
    smallest_failing = smallest;
    largest_failing = largest;
}

AllocationFaults::~AllocationFaults() {
    smallest_failing = SIZE_MAX;
    largest_failing = 0;
}

AllocationFaults::Pause::Pause() : largest_(largest_failing) {
    largest_failing = 0;
}

AllocationFaults::Pause::~Pause() {
    largest_failing = largest_;
}

DisturbedErrno::DisturbedErrno(int error) {
    left_errno = error;
}

DisturbedErrno::~DisturbedErrno() {
    left_errno = 0;
}

#if !TORVA_TEST_ASAN
namespace {

bool fails(std::size_t size) {
    if (size < smallest_failing || size > largest_failing) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

void* handed_out(void* memory) {
    if (memory != nullptr) {
        ++allocated;
        errno = left_errno != 0 ? left_errno : errno;
    }
    return memory;
}

void taken_back() {
    --allocated;
}

void look_at_freed(void* memory) {
    if (memory != nullptr) {
        taken_back();
    }
    if (watched_text != nullptr && memory != nullptr &&
        memmem(memory, malloc_usable_size(memory), watched_text, std::strlen(watched_text)) !=
            nullptr) {
        ++freed_texts;
    }
}

} // namespace
#endif

} // namespace torva::test

#if !TORVA_TEST_ASAN
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the C library's
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size) {
    return torva::test::fails(size) ? nullptr : torva::test::handed_out(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return torva::test::fails(count * size) ? nullptr
                                            : torva::test::handed_out(__libc_calloc(count, size));
}

void* realloc(void* memory, std::size_t size) {
    if (torva::test::fails(size)) {
        return nullptr;
    }
    void* const moved = __libc_realloc(memory, size);
    if (memory != nullptr && (moved != nullptr || size == 0)) {
        torva::test::taken_back();
    }
    return torva::test::handed_out(moved);
}

void free(void* memory) {
    torva::test::look_at_freed(memory);
    __libc_free(memory);
}

} // extern "C"
#endif
