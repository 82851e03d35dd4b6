#include "torva/process/SignalGuards.h"

#include "torva/process/SystemCall.h"

#include <cerrno>

namespace torva::process {
namespace {

void ignoreBrokenPipe(int /*signal*/) {}

} // namespace

SigchldBlock::SigchldBlock() {
    systemCall("get sigprocmask",
               [this] { return ::sigprocmask(SIG_SETMASK, nullptr, &previous_); });
    sigset_t blocked = previous_;
    systemCall("sigaddset", [&blocked] { return ::sigaddset(&blocked, SIGCHLD); });
    systemCall("set sigprocmask",
               [&blocked] { return ::sigprocmask(SIG_SETMASK, &blocked, nullptr); });
    active_ = true;
}

SigchldBlock::~SigchldBlock() {
    if (active_) {
        const int saved = errno;
        ::sigprocmask(SIG_SETMASK, &previous_, nullptr);
        errno = saved;
    }
}

void SigchldBlock::allow() {
    sigset_t allowed = previous_;
    systemCall("set sigprocmask", [&allowed] {
        ::sigdelset(&allowed, SIGCHLD);
        return ::sigprocmask(SIG_SETMASK, &allowed, nullptr);
    });
}

void SigchldBlock::blockAgain() noexcept {
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

void SigchldBlock::restore() {
    systemCall("restore sigprocmask",
               [this] { return ::sigprocmask(SIG_SETMASK, &previous_, nullptr); });
    active_ = false;
}

SigpipeGuard::SigpipeGuard() {
    systemCall("sigaction", [this] { return ::sigaction(SIGPIPE, nullptr, &previous_); });
    if (previous_.sa_handler != SIG_DFL) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = ignoreBrokenPipe;
    action.sa_flags = SA_RESTART;
    systemCall("sigaction", [&action] { return ::sigaction(SIGPIPE, &action, nullptr); });
    active_ = true;
}

SigpipeGuard::~SigpipeGuard() {
    if (active_) {
        const int saved = errno;
        ::sigaction(SIGPIPE, &previous_, nullptr);
        errno = saved;
    }
}

void SigpipeGuard::restore() {
    if (active_) {
        systemCall("restore sigaction",
                   [this] { return ::sigaction(SIGPIPE, &previous_, nullptr); });
        active_ = false;
    }
}

} // namespace torva::process
