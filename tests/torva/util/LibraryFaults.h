// Memory and demangling that fail, or leave traces, on demand: replacements of the
// C++ run-time's own functions that pass on to it unless told otherwise.
#pragma once

#include <string>
#include <vector>

namespace torva::test {

/// What operator new, the demangler and backtrace_symbols(3) do.
struct LibraryFaults {
    bool newFails = false;       ///< std::bad_alloc
    int newSetsErrno = 0;        ///< errno after a successful operator new; 0: as it is
    int newCalls = 0;            ///< number of operator new so far
    bool demanglerFails = false; ///< no mangled name is valid
    bool symbolsFail = false;    ///< backtrace_symbols(3) answers null
    int symbolsCalls = 0;        ///< number of its calls so far
    /// What it answers in the place of the truth, unless empty.
    std::vector<std::string> symbols;
};

/// The state, for everybody; put back with `= {}`.
extern LibraryFaults libraryFaults;

} // namespace torva::test
