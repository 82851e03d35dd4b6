// A set of descriptors for select(2), larger than fd_set, which is limited to 1024 and
// whose macros abort the process beyond that.
// Private to the library: not installed.
#pragma once

#include "torva/util/SystemError.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <sys/select.h>

namespace torva::process {

class DescriptorSet {
public:
    /// One more than the highest descriptor; the count for select(2).
    static constexpr int capacity = 16384;

    void clear() noexcept { words_.fill(0); }

    /// \param fd  an open descriptor
    /// \throws SystemError  "select", EBADF: too high for the set
    void add(int fd) {
        if (fd < 0 || fd >= capacity) {
            throw SystemError("select", EBADF);
        }
        words_[wordOf(fd)] |= bitOf(fd);
    }

    /// False for every number beyond the capacity, and for negative ones.
    bool contains(int fd) const noexcept {
        return fd >= 0 && fd < capacity && (words_[wordOf(fd)] & bitOf(fd)) != 0;
    }

    /// For select(2).
    fd_set* raw() noexcept { return reinterpret_cast<fd_set*>(words_.data()); }

private:
    static constexpr int bitsPerWord = 32;
    // The kernel's words are longs: only on these machines do two of ours make one.
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ || sizeof(long) == 4,
                  "words of 32 bits do not add up to words of long on this machine");

    static std::size_t wordOf(int fd) noexcept {
        return static_cast<std::size_t>(fd / bitsPerWord);
    }
    static std::uint32_t bitOf(int fd) noexcept { return std::uint32_t{1} << (fd % bitsPerWord); }

    alignas(fd_set) std::array<std::uint32_t, capacity / bitsPerWord> words_{};
};

} // namespace torva::process
