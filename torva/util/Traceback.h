// A capture of the call stack that an exception may carry by deriving from it as
// well; torva/util/FatalError.h prints it after the error.
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

    /// Writes "Traceback:" and a line for each frame, names demangled, or, when
    /// the names are not available, "Traceback addresses:" and the bare addresses;
    /// nothing when no frame is left to print. Not for several threads.
    void print(std::ostream& stream) const;

    /// Number of frames captured.
    std::uint32_t size() const { return count; }

private:
    enum { frameLimit = 11 };

    std::uint32_t count;
    std::uint32_t skip;
    void* frames[frameLimit];
    mutable char** symbols; ///< made by the first print(), for free(3); null until then
};

} // namespace torva
