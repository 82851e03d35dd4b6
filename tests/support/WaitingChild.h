// A child of the test that does nothing, for tests of who waits for whom.
#pragma once

#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

/// Lives as long as the object, and at most for 20 seconds: whoever waits for it then goes on,
/// and isThere() tells.
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
