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

// Read by the signal handler.
std::atomic<ProcessSetCatcher*> theCatcher{nullptr};
static_assert(std::atomic<ProcessSetCatcher*>::is_always_lock_free,
              "a lock in a signal handler is a dead-lock");

// A call of the handler. Nobody hears of its failure, and a child that is not reaped
// or a byte that is not written would leave the run waiting for ever: whatever the
// error, it is tried again, but not without end.
//
// \param answer  the errno value that is an answer and no failure
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
        // A number that came back belongs to a younger child of somebody else.
        if (child.pid == pid && !child.ended) {
            child.status = status;
            child.ended = true;
            ++ended_;
            return true;
        }
    }
    return false;
}

std::size_t ProcessSet::running() const noexcept {
    return children_.size() - ended_;
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
        theCatcher = nullptr;
        errno = saved;
    }
}

void ProcessSetCatcher::install() {
    if (theCatcher != nullptr) {
        throw std::logic_error("ProcessSetCatcher instance has been installed already");
    }
    PipeEnds wake = openPipe("process set catcher control pipe");
    // Neither may the handler wait for room nor drain() for one more byte.
    for (const int fd : {wake.read.get(), wake.write.get()}) {
        systemCall("control pipe fcntl", [fd] { return ::fcntl(fd, F_SETFL, O_NONBLOCK); });
    }
    struct sigaction action = {};
    action.sa_handler = handleSigchld;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    std::swap(wake_, wake);
    theCatcher = this;
    if (retried([&] { return ::sigaction(SIGCHLD, &action, &previous_); }) == -1) {
        const int code = errno;
        theCatcher = nullptr;
        std::swap(wake_, wake);
        throw SystemError("sigaction", code);
    }
    installed_ = true;
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
    // The handler has changed the set behind the compiler's back.
    std::atomic_signal_fence(std::memory_order_acquire);
}

void ProcessSetCatcher::remove() {
    if (!installed_) {
        return;
    }
    if (children_.running() != 0) {
        throw std::logic_error("there're some child processes still running");
    }
    systemCall("restore sigaction", [this] { return ::sigaction(SIGCHLD, &previous_, nullptr); });
    installed_ = false;
    theCatcher = nullptr;
    wake_.read.release();
    wake_.write.release();
}

void ProcessSetCatcher::forgetInChild() noexcept {
    theCatcher = nullptr;
}

void ProcessSetCatcher::handleSigchld(int /*signal*/) {
    const int saved = errno;
    if (ProcessSetCatcher* const catcher = theCatcher) {
        catcher->reap();
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
            std::atomic_signal_fence(std::memory_order_release);
            // A full pipe is readable already: the byte is not missed.
            insisted(EAGAIN, [this] { return ::write(wake_.write.get(), "t", 1); });
        }
    }
}

} // namespace torva::process
