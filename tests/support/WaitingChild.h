// A child of the test that does nothing, for tests about waiting for children.
#pragma once

#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

/// Runs during the lifetime of the object, but at most for 20 seconds, so that a process that
/// waits for it goes on; isThere() then shows that.
class WaitingChild {
public:
    WaitingChild() : pid_(::fork()) {
        if (pid_ == 0) {
            ::alarm(20);
            for (;;) {
                ::pause();
            }
        }
    }
    ~WaitingChild() {
        if (pid_ > 0 && isThere()) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;

    /// Whether it has neither ended nor been waited for.
    bool isThere() const { return ::waitpid(pid_, nullptr, WNOHANG) == 0; }

private:
    const pid_t pid_;
};

} // namespace torva::test
