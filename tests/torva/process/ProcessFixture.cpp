#include "ProcessFixture.h"

#include "torva/util/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace torva::process::testing {
namespace {

// SA_RESTORER: no header has it, and every call sets it.
constexpr int setByTheLibrary = 0x04000000;

void describeDescriptors(std::ostream& out) {
    const std::vector<int> fds = openDescriptors();
    for (const int fd : fds) {
        char target[256] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (::readlink(link.c_str(), target, sizeof(target) - 1) == -1) {
            std::strcpy(target, "?");
        }
        out << "descriptor " << fd << " " << target << " fd flags " << ::fcntl(fd, F_GETFD)
            << " file flags " << ::fcntl(fd, F_GETFL) << "\n";
    }
}

void describeSignals(std::ostream& out) {
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    out << "blocked";
    for (int signal = 1; signal < NSIG; ++signal) {
        if (::sigismember(&mask, signal) == 1) {
            out << " " << signal;
        }
    }
    out << "\n";
    for (const int signal : {SIGCHLD, SIGPIPE}) {
        struct sigaction action = {};
        ::sigaction(signal, nullptr, &action);
        out << "action of " << signal << " " << reinterpret_cast<const void*>(action.sa_handler)
            << " flags " << (action.sa_flags & ~setByTheLibrary) << "\n";
    }
}

void describeChildren(std::ostream& out) {
    siginfo_t info = {};
    if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
        out << (info.si_pid != 0 ? "a zombie\n" : "a running child\n");
    } else {
        out << "children: " << std::strerror(errno) << "\n";
    }
}

} // namespace

std::vector<int> openDescriptors() {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir("/proc/self/fd"), &::closedir);
    std::vector<int> fds;
    while (const dirent* entry = ::readdir(dir.get())) {
        int fd = -1; // stays so for "." and ".."
        std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), fd);
        if (fd != -1 && fd != ::dirfd(dir.get())) {
            fds.push_back(fd);
        }
    }
    std::sort(fds.begin(), fds.end());
    return fds;
}

std::string census() {
    std::ostringstream out;
    describeDescriptors(out);
    describeSignals(out);
    describeChildren(out);
    return out.str();
}

void ProcessTest::SetUp() {
    ASSERT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
    ASSERT_EQ(ECHILD, errno);
    before_ = census();
}

void ProcessTest::TearDown() {
    EXPECT_EQ(before_, census());
}

int Outcome::exited() const {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Outcome::signal() const {
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

InputProducer pieces(std::vector<std::string> pieces) {
    std::reverse(pieces.begin(), pieces.end());
    const auto left = std::make_shared<std::vector<std::string>>(std::move(pieces));
    return [left](std::vector<char>& buffer) {
        if (!left->empty()) {
            buffer.insert(buffer.end(), left->back().begin(), left->back().end());
            left->pop_back();
        }
        return !left->empty();
    };
}

OutputConsumer into(std::string& text) {
    return [&text](const std::vector<char>& chunk) { text.append(chunk.begin(), chunk.end()); };
}

std::vector<std::string> shell(const std::string& script) {
    return {"sh", "-c", script};
}

Outcome runScript(const std::string& script, const std::vector<std::string>& input) {
    Outcome outcome;
    Pipe pipe;
    pipe.input = pieces(input);
    pipe.output = into(outcome.output);
    pipe.error = into(outcome.error);
    pipe.addProcess("/bin/sh", {"sh", "-c", script});
    pipe.launch();
    outcome.status = pipe.status(0);
    return outcome;
}

std::string thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const SystemError& error) {
        return "SystemError " + std::to_string(error.code()) + " " + error.what();
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument ") + error.what();
    } catch (const std::out_of_range& error) {
        return std::string("out_of_range ") + error.what();
    } catch (const std::logic_error& error) {
        return std::string("logic_error ") + error.what();
    } catch (const std::runtime_error& error) {
        return std::string("runtime_error ") + error.what();
    } catch (const std::bad_exception&) {
        return "bad_exception";
    } catch (const std::exception& error) {
        return std::string("exception ") + error.what();
    } catch (...) {
        return "something else";
    }
    return "nothing";
}

std::string systemError(const std::string& operation, int code) {
    return "SystemError " + std::to_string(code) + " " + operation + ": " + std::strerror(code);
}

std::string relayedSystemError(const std::string& operation, int code) {
    return systemError(operation, code) + ": " + std::strerror(code);
}

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof(buffer));
        if (count > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

std::string inSubprocess(const std::function<void(std::ostream&)>& body) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == -1) {
        return "no pipe";
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Far from the low numbers that the bodies count on.
        const int report = ::fcntl(fds[1], F_DUPFD_CLOEXEC, 100);
        ::close(fds[0]);
        ::close(fds[1]);
        std::ostringstream out;
        const std::string thrown = thrownBy([&] { body(out); });
        const std::string text = out.str() + (thrown == "nothing" ? "" : thrown);
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t count = ::write(report, text.data() + done, text.size() - done);
            if (count == -1) {
                ::_exit(1);
            }
            done += static_cast<std::size_t>(count);
        }
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string text = readAll(fds[0]);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) {
        text += "signal " + std::to_string(WTERMSIG(status));
    }
    return text;
}

std::vector<int> nextDescriptors(std::size_t count) {
    std::vector<int> fds;
    while (fds.size() < count) {
        fds.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    for (const int fd : fds) {
        ::close(fd);
    }
    return fds;
}

bool eventually(const std::function<bool()>& condition) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

} // namespace torva::process::testing
