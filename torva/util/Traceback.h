// A captured call stack. An exception carries one by also deriving from Traceback;
// torva/util/FatalError.h prints it after the error.
#pragma once

#include <cstdint>
#include <ostream>

namespace torva {

class Traceback {
public:
    /// Captures up to 11 return addresses, see backtrace(3).
    ///
    /// \param skip  number of innermost frames that print() leaves out
    explicit Traceback(std::uint32_t skip);
    Traceback(const Traceback& other);
    Traceback& operator=(const Traceback& other);
    virtual ~Traceback();

    /// Writes "Traceback:" and a line for each frame, with demangled names, or, when names
    /// are not available, "Traceback addresses:" and the addresses; nothing when no frame
    /// is left to print. Not thread-safe.
    void print(std::ostream& stream) const;

    /// Number of frames captured.
    std::uint32_t size() const { return count; }

private:
    enum { frameLimit = 11 };

    std::uint32_t count;
    std::uint32_t skip;
    void* frames[frameLimit];
    mutable char** symbols; ///< allocated by the first print(), for free(3); null until then
};

} // namespace torva
