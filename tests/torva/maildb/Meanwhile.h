// Another process at work during the test.
#pragma once

#include <csignal>
#include <functional>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

/// Another process that does something for ever.
class Meanwhile {
public:
    explicit Meanwhile(const std::function<void()>& action) : child_(fork()) {
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                action();
            }
        }
    }
    ~Meanwhile() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

private:
    pid_t child_;
};

} // namespace torva::test
