// The child between fork and exec. What it needs is prepared by torva/process/Launch.h;
// how its failure travels is torva/process/ErrorRelay.h.
// Private to the library: not installed.
#pragma once

#include <boost/function.hpp>

#include <array>
#include <csignal>

namespace torva::process {

/// Everything that the child needs, nothing of it owned.
struct ChildPlan {
    const char* program;
    char* const* arguments;       ///< null-terminated
    char* const* environment;     ///< null-terminated; null: the parent's
    bool searchPath;              ///< without an environment only
    const char* workingDirectory; ///< null: inherited
    std::array<int, 3> prepared;  ///< for descriptors 0, 1 and 2; -1: inherited
    int controlFd;                ///< write end of the control pipe, above 2
    bool closeOtherDescriptors;
    bool newSession;
    const boost::function<void()>* preExecHook; ///< may be empty
    const sigset_t* signalMask;                 ///< null: as it is
};

/// Becomes the program, or reports why not over the control pipe, closes standard input
/// and all descriptors above 2, and ends with exit(3): 67 after a SystemError, 66 after
/// another std::exception, 65 after anything else.
[[noreturn]] void runChild(const ChildPlan& plan) noexcept;

} // namespace torva::process
