#include "torva/util/LibraryFaults.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <new>

namespace torva::test {

LibraryFaults libraryFaults;

} // namespace torva::test

using torva::test::libraryFaults;

void* operator new(std::size_t size) {
    ++libraryFaults.newCalls;
    void* memory = libraryFaults.newFails ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    if (libraryFaults.newSetsErrno != 0) {
        errno = libraryFaults.newSetsErrno;
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size); // its memory, too, meets the operator delete below
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

extern "C" {

char* abi::__cxa_demangle(const char* mangled, char* buffer, std::size_t* length, int* status) {
    using Demangle = decltype(&abi::__cxa_demangle);
    static const auto real = reinterpret_cast<Demangle>(::dlsym(RTLD_NEXT, "__cxa_demangle"));
    if (libraryFaults.demanglerFails) {
        if (status != nullptr) {
            *status = -2;
        }
        return nullptr;
    }
    return real(mangled, buffer, length, status);
}

char** backtrace_symbols(void* const* frames, int count) noexcept {
    using Symbols = char** (*)(void* const*, int);
    static const auto real = reinterpret_cast<Symbols>(::dlsym(RTLD_NEXT, "backtrace_symbols"));
    ++libraryFaults.symbolsCalls;
    if (libraryFaults.symbolsFail) {
        return nullptr;
    }
    const auto& texts = libraryFaults.symbols;
    if (texts.empty()) {
        return real(frames, count);
    }
    // One block, as from the real one; the texts for want of more repeat the last.
    std::size_t size = static_cast<std::size_t>(count) * sizeof(char*);
    for (int i = 0; i < count; ++i) {
        size += texts[std::min(static_cast<std::size_t>(i), texts.size() - 1)].size() + 1;
    }
    auto** lines = static_cast<char**>(std::malloc(size));
    char* next = reinterpret_cast<char*>(lines + count);
    for (int i = 0; i < count; ++i) {
        const std::string& text = texts[std::min(static_cast<std::size_t>(i), texts.size() - 1)];
        lines[i] = next;
        next += text.copy(next, text.size());
        *next++ = '\0';
    }
    return lines;
}

} // extern "C"
