// The child between fork and exec. torva/process/Launch.h prepares what it needs;
// torva/process/ErrorRelay.h transports its failure.
// Private to the library: not installed.
#pragma once

#include <boost/function.hpp>

#include <array>
#include <csignal>

namespace torva::process {

/// Everything that the child needs; owns nothing.
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
    const sigset_t* signalMask;                 ///< null: unchanged
};

/// Executes the program. On failure reports it over the control pipe, replaces standard
/// input by "/dev/null", closes all descriptors above 2, and ends with exit(3): 67 after a
/// SystemError, 66 after another std::exception, 65 after anything else.
[[noreturn]] void runChild(const ChildPlan& plan) noexcept;

} // namespace torva::process
