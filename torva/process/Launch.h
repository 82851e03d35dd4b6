// Starts a child, and waits for one. A failure of the child before its program runs is
// thrown here as an exception of the same kind. Serving the child's streams is
// torva/process/Pipe.h.
#pragma once

#include "torva/process/Descriptor.h"

#include <boost/function.hpp>

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace torva::process {

/// A standard stream of a child.
struct ChildStream {
    enum class Kind {
        inherited,  ///< that of this process
        nullDevice, ///< "/dev/null"
        newPipe,    ///< a new pipe, whose other end is in the LaunchResult
        descriptor  ///< fd
    };
    Kind kind = Kind::inherited;
    int fd = -1; ///< Kind::descriptor only; not closed
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
    const sigset_t* signalMask = nullptr; ///< of the program, not owned; null: inherited
};

/// A child that is executing its program.
struct LaunchResult {
    pid_t pid = -1;
    Descriptor input;  ///< write end; closed unless Kind::newPipe
    Descriptor output; ///< read end; the same
    Descriptor error;  ///< read end; the same
};

/// Forks, and executes the program in the child. See fork(2), execve(2). While a pipe
/// (torva/process/Pipe.h) runs, it reaps this child as well: waitForExit() then fails.
///
/// \param forked  receives the pid as soon as there is a child, even one that then fails
///                to execute its program: the caller must wait for it; null: not wanted
/// \throws SystemError  a system call failed here: "pipe", "stdin pipe", "stdin /dev/null
///         open", "fork", "control pipe read", "close"; or in the child, whose message
///         ends with the system's text twice: "control pipe close-on-exec fcntl", "stdin
///         dup2", "cwd chdir", "setsid", "restore sigprocmask", "execve", "execvp",
///         "execv"; with "stdout" and "stderr" as with "stdin"
/// \throws std::invalid_argument  "invalid FD for stdin" (or "stdout", "stderr"): a
///         negative descriptor; nothing was started
/// \throws other  what the hook threw, as SystemError, std::runtime_error or
///         std::exception; anything else as std::runtime_error "unknown error"
/// After a failure no descriptor is left open. All standard output streams are flushed
/// first, because a child that fails ends with exit(3), which runs the exit handlers and
/// static destructors of this process. The child's input is then "/dev/null" and nothing
/// above 2 is open, so that it neither moves our file positions nor writes our buffers.
LaunchResult launch(const LaunchRequest& request, pid_t* forked = nullptr);

/// Waits until a child has ended.
///
/// \return raw wait status, see waitpid(2)
/// \throws SystemError  "unable to wait for child process exit"; with ECHILD when there is
///         no such child, or a running pipe has reaped it
int waitForExit(pid_t pid);

/// Waits for all children of this process: for callers of system(3) and pclose(3), which
/// forget their child when waiting for it fails. Call it only where no other child should
/// keep running. Leaves errno as it was.
void waitForLostChildren() noexcept;

} // namespace torva::process
