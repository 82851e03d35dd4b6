#include "torva/maildb/BoundedChild.h"

#include "torva/maildb/CapturedLog.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::test {

namespace {

constexpr auto limit = std::chrono::minutes(5); // a minute was too short on a busy machine

[[noreturn]] void report(const std::function<int()>& function, int end) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string text;
    {
        CapturedLog log;
        text = std::to_string(function()) + "\n";
        for (const LogLine& line : log.take()) {
            text += std::to_string(line.first) + " " + line.second + "\n";
        }
    }
    text += '\0'; // whole
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(end, text.data() + done, text.size() - done);
        if (count <= 0) {
            _exit(1);
        }
        done += static_cast<std::size_t>(count);
    }
    _exit(0);
}

/// Reads to the end, or to the limit.
std::string read_until(int end, std::chrono::steady_clock::time_point deadline) {
    std::string text;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd source{end, POLLIN, 0};
        if (left.count() <= 0 || poll(&source, 1, static_cast<int>(left.count())) == 0) {
            return "hangs";
        }
        char buffer[4096];
        const ssize_t count = read(end, buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    if (text.empty() || text.back() != '\0') {
        return "died";
    }
    text.pop_back();
    return text;
}

} // namespace

std::string bounded(const std::function<int()>& function) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        report(function, ends[1]);
    }
    close(ends[1]);
    std::string text = read_until(ends[0], std::chrono::steady_clock::now() + limit);
    close(ends[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return text;
}

} // namespace torva::test
