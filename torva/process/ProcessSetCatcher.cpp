#include "torva/process/ProcessSetCatcher.h"

#include "torva/process/SystemCall.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

// The catcher that is installed or being installed. The handler uses it only in its owner's
// thread, where it cannot be destroyed meanwhile.
std::atomic<ProcessSetCatcher*> theCatcher{nullptr};
// The kernel id of the thread in which the handler reaps; a pthread_t must not be used after
// its thread has ended. 0: none, and the handler does nothing.
std::atomic<pid_t> theOwner{0};
static_assert(std::atomic<ProcessSetCatcher*>::is_always_lock_free &&
                  std::atomic<pid_t>::is_always_lock_free &&
                  std::atomic<std::size_t>::is_always_lock_free,
              "a lock in a signal handler is a dead-lock");

// A system call in the handler, which cannot report a failure. If a child were not reaped,
// or a byte not written, the loop would wait for ever: so the call is repeated after any
// error, a limited number of times.
//
// \param answer  the errno value that is not a failure
template <typename Call>
auto insisted(int answer, Call call) noexcept -> decltype(call()) {
    constexpr int attempts = 3;
    for (int attempt = 1;; ++attempt) {
        const auto result = retried(call);
        if (result != -1 || errno == answer || attempt == attempts) {
            return result;
        }
    }
}

} // namespace

ProcessSet::ProcessSet(std::size_t capacity) {
    children_.reserve(capacity);
}

void ProcessSet::add(pid_t pid) noexcept {
    assert(children_.size() < children_.capacity());
    children_.push_back({pid, 0, false});
}

bool ProcessSet::recordEnd(pid_t pid, int status) noexcept {
    for (WatchedChild& child : children_) {
        // A pid that was reused belongs to a child that is not in the set.
        if (child.pid == pid && !child.ended) {
            child.status = status;
            child.ended = true;
            ended_.fetch_add(1, std::memory_order_release);
            return true;
        }
    }
    return false;
}

std::size_t ProcessSet::running() const noexcept {
    // The acquire makes the statuses visible, too.
    return children_.size() - ended_.load(std::memory_order_acquire);
}

int ProcessSet::status(pid_t pid) const {
    for (const WatchedChild& child : children_) {
        if (child.pid == pid) {
            return child.status;
        }
    }
    throw std::out_of_range("no such pid");
}

ProcessSetCatcher::ProcessSetCatcher(ProcessSet& children) : children_(children), previous_() {}

ProcessSetCatcher::~ProcessSetCatcher() {
    if (installed_) {
        const int saved = errno;
        ::sigaction(SIGCHLD, &previous_, nullptr);
        uninstall();
        errno = saved;
    }
}

void ProcessSetCatcher::install() {
    // Atomically: two threads may try at the same time.
    ProcessSetCatcher* none = nullptr;
    if (!theCatcher.compare_exchange_strong(none, this)) {
        throw std::logic_error("ProcessSetCatcher instance has been installed already");
    }
    try {
        takeSigchld();
    } catch (...) {
        uninstall();
        throw;
    }
}

void ProcessSetCatcher::takeSigchld() {
    PipeEnds wake = openPipe("process set catcher control pipe");
    // The handler must not block on a full pipe, and drain() not on an empty one.
    for (const int fd : {wake.read.get(), wake.write.get()}) {
        systemCall("control pipe fcntl", [fd] { return ::fcntl(fd, F_SETFL, O_NONBLOCK); });
    }
    struct sigaction action = {};
    action.sa_handler = handleSigchld;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    std::swap(wake_, wake);
    theOwner = ::gettid();
    if (retried([&] { return ::sigaction(SIGCHLD, &action, &previous_); }) == -1) {
        const int code = errno;
        std::swap(wake_, wake);
        throw SystemError("sigaction", code);
    }
    installed_ = true;
}

void ProcessSetCatcher::uninstall() noexcept {
    installed_ = false;
    theOwner = 0;
    theCatcher = nullptr;
}

void ProcessSetCatcher::drain() {
    char bytes[256];
    ssize_t count = 0;
    do {
        count = retried([&] { return ::read(wakeFd(), bytes, sizeof(bytes)); });
        if (count == -1 && errno != EAGAIN) {
            throwLastError("read");
        }
    } while (count == sizeof(bytes));
}

void ProcessSetCatcher::remove() {
    if (!installed_) {
        return;
    }
    if (children_.running() != 0) {
        throw std::logic_error("there're some child processes still running");
    }
    systemCall("restore sigaction", [this] { return ::sigaction(SIGCHLD, &previous_, nullptr); });
    uninstall();
    wake_.read.release();
    wake_.write.release();
}

void ProcessSetCatcher::forgetInChild() noexcept {
    theOwner = 0;
    theCatcher = nullptr;
}

void ProcessSetCatcher::handleSigchld(int /*signal*/) {
    const int saved = errno;
    const pid_t owner = theOwner;
    if (owner == ::gettid()) {
        theCatcher.load()->reap();
    } else if (owner != 0) {
        // The kernel may choose any thread. If this one reaped a child before the launching
        // thread has added it to the set, that thread would wait for ever. There the signal
        // stays pending while the set is being changed.
        ::tgkill(::getpid(), owner, SIGCHLD);
    }
    errno = saved;
}

// Runs in the signal handler: async-signal-safe functions only. One signal may
// stand for any number of children.
void ProcessSetCatcher::reap() noexcept {
    for (;;) {
        int status = 0;
        const pid_t pid = insisted(ECHILD, [&status] { return ::waitpid(-1, &status, WNOHANG); });
        if (pid <= 0) {
            return;
        }
        const bool terminated = WIFEXITED(status) || WIFSIGNALED(status);
        if (terminated && children_.recordEnd(pid, status)) {
            // A full pipe is readable already: the byte is not missed.
            insisted(EAGAIN, [this] { return ::write(wake_.write.get(), "t", 1); });
        }
    }
}

} // namespace torva::process
