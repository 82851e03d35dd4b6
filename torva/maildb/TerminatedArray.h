// Builds the arrays that the plain functions return: memory from malloc(3), terminated by
// an element of zeros.
// Private to the library: not installed.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace torva::maildb {

/// \tparam T        a plain type
/// \tparam Release  frees an array with all its elements; takes null
template <typename T, void (*Release)(T*)>
class TerminatedArray {
public:
    TerminatedArray() = default;
    ~TerminatedArray() { Release(elements_); }
    TerminatedArray(const TerminatedArray&) = delete;
    TerminatedArray& operator=(const TerminatedArray&) = delete;

    /// Makes room for one more element and the terminator. False, with errno, when memory
    /// runs out. The capacity doubles, so that a long array is not copied for each element.
    bool reserve() {
        if (elements_ != nullptr && count_ + 2 <= capacity_) {
            return true;
        }
        const std::size_t capacity = capacity_ == 0 ? 2 : capacity_ * 2;
        void* grown = std::realloc(elements_, capacity * sizeof(T));
        if (grown == nullptr) {
            errno = ENOMEM;
            return false;
        }
        elements_ = static_cast<T*>(grown);
        elements_[count_] = T{};
        capacity_ = capacity;
        return true;
    }

    /// Appends an element, which the array then owns. Call reserve() first.
    void append(T element) {
        elements_[count_++] = element;
        elements_[count_] = T{};
    }

    std::size_t count() const { return count_; }

    /// Gives up ownership of the array; null when reserve() was never called.
    T* release() {
        T* elements = elements_;
        elements_ = nullptr;
        return elements;
    }

private:
    T* elements_ = nullptr;
    std::size_t count_ = 0;
    std::size_t capacity_ = 0;
};

} // namespace torva::maildb
