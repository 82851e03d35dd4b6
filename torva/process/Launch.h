// Starts one child and waits for one. A failure of the child before its program
// runs surfaces here as an exception of the same kind. Serving the child's streams is
// torva/process/Pipe.h.
#pragma once

#include "torva/process/Descriptor.h"

#include <boost/function.hpp>

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace torva::process {

/// Where a standard stream of a child leads.
struct ChildStream {
    enum class Kind {
        inherited,  ///< left as it is
        nullDevice, ///< "/dev/null"
        newPipe,    ///< a new pipe, the other end in the LaunchResult
        descriptor  ///< fd
    };
    Kind kind = Kind::inherited;
    int fd = -1; ///< Kind::descriptor only; stays the caller's
};

/// What to start and how.
struct LaunchRequest {
    std::string program;                ///< path of the executable
    std::vector<std::string> arguments; ///< argument vector, argument 0 included
    /// NAME=value texts, not owned; null: the parent's environment
    const std::vector<std::string>* environment = nullptr;
    bool searchPath = false;      ///< look the program up in PATH; not with an environment
    std::string workingDirectory; ///< empty: inherited
    ChildStream input;
    ChildStream output;
    ChildStream error;
    bool closeOtherDescriptors = false; ///< close all from 3 up to the limit
    bool newSession = false;            ///< see setsid(2)
    /// called in the child just before exec; must not wait for this process, which
    /// waits for the exec
    boost::function<void()> preExecHook;
    const sigset_t* signalMask = nullptr; ///< mask of the program, not owned; null: inherited
};

/// A child that runs its program.
struct LaunchResult {
    pid_t pid = -1;
    Descriptor input;  ///< write end; closed unless Kind::newPipe
    Descriptor output; ///< read end; the same
    Descriptor error;  ///< read end; the same
};

/// Forks, and executes the program in the child. See fork(2), execve(2). While a pipe
/// (torva/process/Pipe.h) runs, it reaps this child, too: waitForExit() then fails.
///
/// \param forked  takes the pid as soon as there is a child; also one that could
///                not execute its program and is left to the caller to wait for;
///                null: not wanted
/// \throws SystemError  a system call failed here or, with its text twice, in the
///         child: "pipe", "stdin pipe", "stdin /dev/null open", "fork", "control
///         pipe read", "close"; "control pipe close-on-exec fcntl", "stdin dup2",
///         "cwd chdir", "setsid", "restore sigprocmask", "execve", "execvp", "execv";
///         "stdout" and "stderr" in place of "stdin"
/// \throws std::invalid_argument  "invalid FD for stdin" (or "stdout", "stderr"): a
///         negative descriptor; nothing was started
/// \throws other  what the hook threw, as std::runtime_error, std::exception or,
///         for what is no std::exception, std::runtime_error "unknown error"
/// No descriptor stays open after a failure. All standard output streams are flushed
/// first, because a child that fails ends with exit(3) and runs the exit handlers and
/// static destructors of this process, with "/dev/null" as its input and nothing open
/// above 2: files that are half read stay where they are, buffers are written once.
LaunchResult launch(const LaunchRequest& request, pid_t* forked = nullptr);

/// Waits until a child has ended.
///
/// \return raw wait status, see waitpid(2)
/// \throws SystemError  "unable to wait for child process exit"; with ECHILD when there is
///         no such child, or a running pipe has reaped it
int waitForExit(pid_t pid);

/// Waits for every child that this process still has: for callers of system(3) and
/// pclose(3), which forget their child when their own waiting fails. Only where no
/// other child is meant to go on. Leaves errno as it was.
void waitForLostChildren() noexcept;

} // namespace torva::process
