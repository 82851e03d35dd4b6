#include "torva/process/EndChildren.h"

#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SystemCall.h"

#include <csignal>
#include <ctime>
#include <sys/wait.h>

namespace torva::process {
namespace {

using Clock = std::chrono::steady_clock;

// Each child by its own pid: others may belong to the caller.
void reap(ProcessSet& children, int options) noexcept {
    for (const WatchedChild& child : children.children()) {
        if (child.ended) {
            continue;
        }
        int status = 0;
        const pid_t pid = child.pid;
        if (retried([&] { return ::waitpid(pid, &status, options); }) != 0) {
            // -1: it was reaped elsewhere; waiting for it would never end.
            children.recordEnd(pid, status);
        }
    }
}

timespec timeUntil(Clock::time_point deadline) noexcept {
    using std::chrono::nanoseconds;
    constexpr long long perSecond = 1000000000;
    const auto left = std::chrono::duration_cast<nanoseconds>(deadline - Clock::now()).count();
    timespec time = {};
    if (left > 0) {
        time.tv_sec = static_cast<time_t>(left / perSecond);
        time.tv_nsec = static_cast<long>(left % perSecond);
    }
    return time;
}

// A blocked SIGCHLD stays pending, so one that arrives between reap() and sigtimedwait(2)
// is not missed.
void waitForAll(ProcessSet& children, std::chrono::milliseconds patience) noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGCHLD);
    const Clock::time_point deadline = Clock::now() + patience;
    for (;;) {
        reap(children, WNOHANG);
        if (children.running() == 0 || Clock::now() >= deadline) {
            return;
        }
        const timespec left = timeUntil(deadline);
        ::sigtimedwait(&signals, nullptr, &left);
    }
}

void signalAll(const ProcessSet& children, int signal) noexcept {
    for (const WatchedChild& child : children.children()) {
        if (!child.ended) {
            ::kill(child.pid, signal);
        }
    }
}

} // namespace

void endChildren(ProcessSet& children, std::chrono::milliseconds patience) noexcept {
    waitForAll(children, patience);
    signalAll(children, SIGTERM);
    if (children.running() != 0) {
        waitForAll(children, patience);
    }
    signalAll(children, SIGKILL);
    reap(children, 0);
}

} // namespace torva::process
