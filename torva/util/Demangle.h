// Demangled names of types and functions, see abi::__cxa_demangle.
// Private to the library: not installed.
#pragma once

#include <cstdlib>
#include <cxxabi.h>
#include <memory>

namespace torva {

/// The readable form of a mangled name; false when there is none.
class DemangledName {
public:
    explicit DemangledName(const char* mangled)
        : text_(abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr), &std::free) {}

    explicit operator bool() const { return text_ != nullptr; }

    /// Valid as long as the object; null when false.
    const char* get() const { return text_.get(); }

private:
    std::unique_ptr<char, decltype(&std::free)> text_;
};

} // namespace torva
