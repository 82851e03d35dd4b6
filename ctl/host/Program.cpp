#include "ctl/host/Program.h"

#include "ctl/host/ToolWords.h"
#include "torva/util/SystemError.h"

#include <boost/algorithm/string/join.hpp>

#include <csignal>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::ctl {

namespace {

bool announces = false;   ///< see announceWaits()
std::string announcement; ///< written by the handler; not changed while the timer runs

void writeAnnouncement(int) {
    const ssize_t ignored = ::write(STDERR_FILENO, announcement.data(), announcement.size());
    static_cast<void>(ignored);
}

std::string noticeOf(const std::string& purpose) {
    return "torva-postfixctl: waiting for " + purpose + "\n";
}

void setTimer(long seconds) {
    itimerval timer{};
    timer.it_value.tv_sec = seconds;
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

/// Names the program, once, if it takes longer than a second. Children do not inherit a
/// timer.
class WaitNotice {
public:
    explicit WaitNotice(const Program& program) : isSet_(announces && program.error == -1) {
        if (isSet_) {
            announcement =
                noticeOf(program.purpose.empty() ? boost::algorithm::join(program.words, " ")
                                                 : program.purpose);
            setTimer(1);
        }
    }
    ~WaitNotice() {
        if (isSet_) {
            setTimer(0);
        }
    }
    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;

private:
    bool isSet_;
};

void append(std::string& text, const std::vector<char>& chunk) {
    text.append(chunk.data(), chunk.size());
}

process::CommonFlags flagsFor(const Program& program, ToolResult& result) {
    process::CommonFlags flags;
    flags.searchPath = true;
    flags.input = [&program](std::vector<char>& buffer) {
        buffer.assign(program.input.begin(), program.input.end());
        return false;
    };
    flags.outputFd = program.output;
    flags.errorFd = program.error;
    if (program.output == -1) {
        flags.output = [&result](const std::vector<char>& chunk) { append(result.output, chunk); };
    }
    if (program.error == -1) {
        flags.error = [&result](const std::vector<char>& chunk) { append(result.error, chunk); };
    }
    return flags;
}

constexpr int notStarted = 127;
std::function<void()> atEnd; ///< see afterEachProgram()

} // namespace

ToolResult run(const Program& program) {
    const WaitNotice notice(program);
    ToolResult result;
    process::Pipe pipe;
    try {
        pipe.addProcess(program.words.at(0), program.words, flagsFor(program, result));
        pipe.launch();
        result.status = pipe.status(0);
    } catch (const SystemError& error) {
        result.status = W_EXITCODE(notStarted, 0);
        result.error = program.words.at(0) + ": " + error.what();
    }
    if (atEnd) {
        atEnd();
    }
    return result;
}

ToolResult run(std::vector<std::string> words) {
    Program program;
    program.words = std::move(words);
    return run(program);
}

std::string wordsOf(const ToolResult& result) {
    std::string words = reasonIn(result.error);
    if (words.empty()) {
        words = reasonIn(result.output);
    }
    if (words.empty()) {
        words = result.signaled() ? "ended by signal " + std::to_string(WTERMSIG(result.status))
                                  : "exit status " + std::to_string(exitStatus(result));
    }
    return words;
}

int exitStatus(const ToolResult& result) {
    return result.signaled() ? 128 + WTERMSIG(result.status) : WEXITSTATUS(result.status);
}

void afterEachProgram(std::function<void()> function) {
    atEnd = std::move(function);
}

void announceWaits() {
    struct sigaction action {};
    action.sa_handler = &writeAnnouncement;
    action.sa_flags = SA_RESTART;
    announces = ::sigaction(SIGALRM, &action, nullptr) == 0;
}

void announceWait(const std::string& purpose) {
    announcement = noticeOf(purpose);
    writeAnnouncement(0);
}

} // namespace torva::ctl
