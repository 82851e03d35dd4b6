#include "ctl/rehearsal/Rehearsal.h"

#include "ctl/rehearsal/Deadline.h"
#include "ctl/rehearsal/DeliveryFindings.h"
#include "ctl/rehearsal/FindingWire.h"
#include "ctl/rehearsal/MountTable.h"
#include "ctl/rehearsal/Stage.h"
#include "torva/process/Descriptor.h"
#include "torva/process/SystemCall.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <linux/sched.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::ctl {
namespace {

using namespace rehearsal;

constexpr std::chrono::seconds longest(28); // the kernel's cleaning up takes time, too

void requirePrivateWorld() {
    const char* const kind = std::getenv("TORVA_SANDBOX");
    std::ifstream file("/proc/self/mountinfo");
    std::ostringstream text;
    text << file.rdbuf();
    if (kind == nullptr || std::string(kind) != "namespaces" ||
        !areMountPoints(parseMountInfo(text.str()), {"/etc", "/run", "/usr", "/var"})) {
        throw std::logic_error("a rehearsal works in the private world of scripts/sandbox only");
    }
}

void writeWhole(int fd, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        done += static_cast<std::size_t>(process::systemCall(
            "write", [&] { return ::write(fd, bytes.data() + done, bytes.size() - done); }));
    }
}

// The caller has ended already: the death signal below would never come.
bool isAlone(int fd) {
    pollfd wait{fd, POLLOUT, 0};
    return ::poll(&wait, 1, 0) == 1 && (wait.revents & POLLERR) != 0;
}

// The child starts with the signals and streams of a new process, not those that the caller
// has set up.
void forgetCaller() {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setsid();
    ::umask(022);
    const process::Descriptor null = process::openNullDevice(O_RDWR, "open");
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(null.get(), standard);
    }
}

// Process 1 of the inner world. When it ends, the kernel kills all others in it.
[[noreturn]] void runChild(const RehearsalPlace& place, int report) noexcept {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (isAlone(report)) {
        ::_exit(1);
    }
    try {
        forgetCaller();
        playStage(place, [report](const std::string& record) { writeWhole(report, record); });
    } catch (const std::exception& error) {
        try {
            writeWhole(report, encode(tellTrouble(error.what())));
        } catch (const std::exception&) {
            ::_exit(1);
        }
    }
    ::_exit(0);
}

// The inner world, as our child process. The destructor ends it with everything in it.
class InnerProcess {
public:
    explicit InnerProcess(const RehearsalPlace& place) : pipe_(process::openPipe("pipe")) {
        std::cout.flush();
        clone_args how = {};
        how.flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC;
        how.exit_signal = SIGCHLD;
        pid_ = static_cast<pid_t>(process::systemCall(
            "clone", [&how] { return ::syscall(SYS_clone3, &how, sizeof(how)); }));
        if (pid_ == 0) {
            pipe_.read.closeQuietly();
            runChild(place, pipe_.write.get());
        }
        pipe_.write.closeQuietly();
    }
    ~InnerProcess() {
        ::kill(pid_, SIGKILL);
        process::retried([this] { return ::waitpid(pid_, nullptr, 0); });
    }
    InnerProcess(const InnerProcess&) = delete;
    InnerProcess& operator=(const InnerProcess&) = delete;

    // Its reports until it ends; inTime: whether it has ended.
    std::string readReport(const Deadline& deadline, bool& inTime) {
        std::string report;
        pollfd wait{pipe_.read.get(), POLLIN, 0};
        while (process::systemCall(
                   "poll", [&] { return ::poll(&wait, 1, deadline.milliseconds()); }) == 1) {
            std::array<char, 4096> bytes;
            const ssize_t size = process::systemCall(
                "read", [&] { return ::read(pipe_.read.get(), bytes.data(), bytes.size()); });
            if (size == 0) {
                inTime = true;
                return report;
            }
            report.append(bytes.data(), static_cast<std::size_t>(size));
        }
        inTime = false;
        return report;
    }

private:
    process::PipeEnds pipe_;
    pid_t pid_ = -1;
};

} // namespace

std::vector<Finding> rehearse(const RehearsalPlace& place) {
    if (!place.ownNetwork) {
        return {{Level::warning, "delivery",
                 "No message was sent: this private world has no network of its own, and mail "
                 "could leave the host.",
                 "Run it where root may make namespaces, not in a plain container."}};
    }
    requirePrivateWorld();
    const Deadline deadline(longest);
    InnerProcess inner(place);
    bool inTime = false;
    Received received = decode(inner.readReport(deadline, inTime));
    if (!inTime) {
        received.findings.push_back(
            tellTrouble("it was cut off after 30 seconds, while " + received.step));
    } else if (received.findings.empty()) {
        received.findings.push_back(tellTrouble("it ended while " + received.step));
    }
    return std::move(received.findings);
}

} // namespace torva::ctl
