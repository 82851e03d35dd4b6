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
    explicit DemangledName(const char* mangled) : text_(nullptr, &std::free) {
        int status = 0;
        char* text = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
        text_.reset(text);
        if (status != 0) {
            text_.reset();
        }
    }

    explicit operator bool() const { return text_ != nullptr; }

    /// Valid as long as the object; null when false.
    const char* get() const { return text_.get(); }

private:
    std::unique_ptr<char, decltype(&std::free)> text_;
};

} // namespace torva
