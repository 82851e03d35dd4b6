#include "torva/process/ChildSide.h"

#include "torva/process/ErrorRelay.h"
#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SystemCall.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace torva::process {
namespace {

constexpr int firstOther = STDERR_FILENO + 1;
constexpr int assumedLimit = 20;

constexpr std::array<const char*, 3> dup2Operations = {"stdin dup2", "stdout dup2", "stderr dup2"};

// Brings the prepared descriptors to 0, 1 and 2. One of them may itself be 0, 1 or
// 2, and two streams may share one.
void redirectStreams(std::array<int, 3> prepared) {
    // Move them out of the way first: the dup2 for one stream must not overwrite the
    // descriptor that another one needs, as when 1 and 2 are swapped.
    for (int target = 0; target < 3; ++target) {
        int& fd = prepared[static_cast<std::size_t>(target)];
        if (fd >= 0 && fd < firstOther && fd != target) {
            fd = systemCall(dup2Operations[static_cast<std::size_t>(target)],
                            [fd] { return ::fcntl(fd, F_DUPFD_CLOEXEC, firstOther); });
        }
    }
    for (int target = 0; target < 3; ++target) {
        const int fd = prepared[static_cast<std::size_t>(target)];
        if (fd == -1) {
            continue;
        }
        systemCall(dup2Operations[static_cast<std::size_t>(target)], [fd, target] {
            // In place already: dup2 would leave a close-on-exec flag on it.
            return fd == target ? ::fcntl(fd, F_SETFD, 0) : ::dup2(fd, target);
        });
    }
    // Only now, and each once: two streams may share one.
    std::sort(prepared.begin(), prepared.end());
    const auto end = std::unique(prepared.begin(), prepared.end());
    for (auto fd = prepared.begin(); fd != end; ++fd) {
        if (*fd >= firstOther) {
            retried([fd] { return ::close(*fd); });
        }
    }
}

// first up to end - 1.
void closeRange(int first, int end) {
    if (first >= end) {
        return;
    }
    if (::close_range(static_cast<unsigned>(first), static_cast<unsigned>(end - 1), 0) == 0) {
        return;
    }
    for (int fd = first; fd < end; ++fd) {
        ::close(fd);
    }
}

// One more than the highest descriptor that can be opened.
int descriptorLimit() {
    struct rlimit limit = {};
    if (retried([&limit] { return ::getrlimit(RLIMIT_NOFILE, &limit); }) != 0) {
        return assumedLimit;
    }
    constexpr rlim_t highest = 0x7fffffff;
    return static_cast<int>(std::min(limit.rlim_cur, highest));
}

// One range on each side of the control pipe: the limit may be a billion, too much
// for a loop.
void closeOtherDescriptors(int controlFd) {
    const int saved = errno;
    const int end = descriptorLimit();
    closeRange(firstOther, std::min(controlFd, end));
    closeRange(controlFd + 1, end);
    errno = saved;
}

// exit(3) cleans up the streams of the process: for a file that the parent has half read, it
// would move the shared offset back to the beginning of the parent's buffer, and it would
// write the contents of the parent's own buffers a second time. Standard output and error
// stay open for output of the hook and the exit handlers.
void leaveDescriptorsToTheParent() {
    ::close(STDIN_FILENO);
    ::open("/dev/null", O_RDONLY); // or the next file opened would become standard input
    if (::close_range(firstOther, ~0U, 0) != 0) {
        closeRange(firstOther, descriptorLimit());
    }
}

[[noreturn]] void execute(const ChildPlan& plan) {
    if (plan.environment != nullptr) {
        systemCall("execve",
                   [&plan] { return ::execve(plan.program, plan.arguments, plan.environment); });
    } else if (plan.searchPath) {
        systemCall("execvp", [&plan] { return ::execvp(plan.program, plan.arguments); });
    } else {
        systemCall("execv", [&plan] { return ::execv(plan.program, plan.arguments); });
    }
    std::abort(); // not reached: an exec that returns has failed, and that was thrown
}

[[noreturn]] void becomeProgram(const ChildPlan& plan) {
    // If it stayed open across exec, the parent would wait until the program ends.
    systemCall("control pipe close-on-exec fcntl",
               [&plan] { return ::fcntl(plan.controlFd, F_SETFD, FD_CLOEXEC); });
    redirectStreams(plan.prepared);
    if (plan.workingDirectory != nullptr) {
        systemCall("cwd chdir", [&plan] { return ::chdir(plan.workingDirectory); });
    }
    if (plan.closeOtherDescriptors) {
        closeOtherDescriptors(plan.controlFd);
    }
    if (plan.newSession) {
        systemCall("setsid", [] { return ::setsid(); });
    }
    if (plan.signalMask != nullptr) {
        systemCall("restore sigprocmask",
                   [&plan] { return ::sigprocmask(SIG_SETMASK, plan.signalMask, nullptr); });
    }
    if (*plan.preExecHook) {
        (*plan.preExecHook)();
    }
    execute(plan);
}

} // namespace

void runChild(const ChildPlan& plan) noexcept {
    // The handler is the parent's and writes to the parent's pipe.
    ProcessSetCatcher::forgetInChild();
    int status = EXIT_FAILURE;
    try {
        becomeProgram(plan);
    } catch (...) {
        const ChildError error = currentError();
        writeError(plan.controlFd, error);
        status = error.exitStatus;
    }
    leaveDescriptorsToTheParent();
    std::exit(status);
}

} // namespace torva::process
