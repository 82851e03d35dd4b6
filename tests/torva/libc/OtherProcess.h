// Another process that holds something, or waits for it, as long as a test
// wants it to.
#pragma once

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

/// Another process, which does one thing, reports the result, and waits.
class OtherProcess {
public:
    explicit OtherProcess(const std::function<int()>& body) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            const char result = static_cast<char>(body());
            [[maybe_unused]] const ssize_t written = ::write(fds[1], &result, 1);
            ::pause();
            ::_exit(0);
        }
        ::close(fds[1]);
        fd_ = fds[0];
    }
    ~OtherProcess() { end(); }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /// The result of the body, once there is one; -2: it ended without.
    int result() const {
        char result = 0;
        return ::read(fd_, &result, 1) == 1 ? result : -2;
    }

    /// Whether there is a result.
    bool answered() const {
        pollfd poll = {fd_, POLLIN, 0};
        return ::poll(&poll, 1, 0) == 1;
    }

    pid_t pid() const { return pid_; }

    void end() {
        if (pid_ != -1) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            ::close(fd_);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

/// Returns when the process waits for a lock, see proc_locks(5).
inline bool waitsForLock(pid_t pid) {
    const std::string wanted = " " + std::to_string(pid) + " ";
    for (int attempt = 0; attempt < 2000; ++attempt) {
        std::ifstream locks("/proc/locks");
        std::string line;
        while (std::getline(locks, line)) {
            if (line.find("-> ") != std::string::npos && line.find(wanted) != std::string::npos) {
                return true;
            }
        }
        ::usleep(5000);
    }
    return false;
}

} // namespace torva::test
