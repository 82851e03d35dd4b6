#include "torva/libc/sigpipe.h"

#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

// What sigpipe_release() must undo.
constexpr int dropPending = 1;
constexpr int unblock = 2;

sigset_t onlySigpipe() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    return signals;
}

} // namespace

extern "C" {

int sigpipe_hold(void) {
    const int saved_errno = errno;
    const sigset_t signals = onlySigpipe();
    sigset_t pending;
    ::sigemptyset(&pending);
    ::sigpending(&pending);
    int held = 0;
    // One that is pending is blocked already, and not ours to drop.
    if (::sigismember(&pending, SIGPIPE) == 0) {
        sigset_t previous;
        if (::pthread_sigmask(SIG_BLOCK, &signals, &previous) == 0) {
            held = ::sigismember(&previous, SIGPIPE) == 0 ? dropPending | unblock : dropPending;
        }
    }
    errno = saved_errno;
    return held;
}

void sigpipe_release(int held) {
    const int saved_errno = errno;
    const sigset_t signals = onlySigpipe();
    if ((held & dropPending) != 0) {
        const timespec now = {0, 0};
        while (::sigtimedwait(&signals, nullptr, &now) == -1 && errno == EINTR) {
        }
    }
    if ((held & unblock) != 0) {
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    errno = saved_errno;
}

} // extern "C"
