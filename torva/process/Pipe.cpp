#include "torva/process/Pipe.h"

#include "torva/process/Descriptor.h"
#include "torva/process/EndChildren.h"
#include "torva/process/Launch.h"
#include "torva/process/ProcessSetCatcher.h"
#include "torva/process/SignalGuards.h"
#include "torva/process/StreamServer.h"
#include "torva/util/SystemError.h"

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <sys/wait.h>

namespace torva::process {
namespace {

// For the children of a pipe that has failed, before each of the two signals.
constexpr std::chrono::seconds patience(3);

struct Process {
    std::string program;
    std::vector<std::string> arguments;
    CommonFlags flags;
    pid_t pid = -1;
    int status = 0;
};

template <typename Callback>
void complete(Callback& own, const Callback& common) {
    if (!own) {
        own = common;
    }
}

void completeDescriptor(int& own, int common) {
    // Before anything is opened that could take the number of a closed one.
    own = pinned(own == -1 ? common : own);
}

// Settings that are not set are taken from the pipe. For the environment it is the opposite:
// the pipe's replaces one that is set.
void completeFlags(CommonFlags& own, const CommonFlags& common) {
    if (own.workingDirectory.empty()) {
        own.workingDirectory = common.workingDirectory;
    }
    if (own.environment != nullptr && common.environment != nullptr) {
        own.environment = common.environment;
    }
    own.searchPath = own.searchPath || common.searchPath;
    complete(own.input, common.input);
    complete(own.output, common.output);
    complete(own.error, common.error);
    completeDescriptor(own.inputFd, common.inputFd);
    completeDescriptor(own.outputFd, common.outputFd);
    completeDescriptor(own.errorFd, common.errorFd);
}

ChildStream streamFor(bool hasCallback, int fd) {
    if (hasCallback) {
        return {ChildStream::Kind::newPipe, -1};
    }
    if (fd != -1) {
        return {ChildStream::Kind::descriptor, fd};
    }
    return {};
}

LaunchRequest requestFor(const Process& process, const sigset_t& mask) {
    LaunchRequest request;
    request.program = process.program;
    request.arguments = process.arguments;
    request.environment = process.flags.environment;
    request.searchPath = process.flags.searchPath;
    request.workingDirectory = process.flags.workingDirectory;
    request.input = streamFor(!process.flags.input.empty(), process.flags.inputFd);
    request.output = streamFor(!process.flags.output.empty(), process.flags.outputFd);
    request.error = streamFor(!process.flags.error.empty(), process.flags.errorFd);
    request.signalMask = &mask;
    return request;
}

int statusOfFailed(pid_t pid) noexcept {
    try {
        return waitForExit(pid);
    } catch (const SystemError&) {
        return 0; // reaped elsewhere; the launch error is the one to report
    }
}

void start(Process& process, const sigset_t& mask, ServedChild& served, ProcessSet& children) {
    LaunchResult started;
    try {
        started = launch(requestFor(process, mask), &process.pid);
    } catch (...) {
        // It is about to exit and in no set: nobody else would reap it.
        if (process.pid != -1) {
            process.status = statusOfFailed(process.pid);
        }
        throw;
    }
    children.add(process.pid);
    served.flags = &process.flags;
    served.input = std::move(started.input);
    served.output = std::move(started.output);
    served.error = std::move(started.error);
}

// Starts all and serves them to their end. SIGCHLD is blocked on entry.
void startAndServe(std::vector<Process>& processes, std::vector<ServedChild>& served,
                   ProcessSet& children, ProcessSetCatcher& catcher, SigchldBlock& sigchld) {
    for (std::size_t index = 0; index < processes.size(); ++index) {
        start(processes[index], sigchld.previous(), served[index], children);
    }
    sigchld.allow();
    StreamServer(served, children, catcher).run();
}

void takeStatuses(std::vector<Process>& processes, const ProcessSet& children) {
    // In the order of starting; after a failure the set has fewer.
    for (std::size_t index = 0; index < children.children().size(); ++index) {
        processes[index].status = children.children()[index].status;
    }
}

// A child that failed may have stopped reading for that reason, which the caller reports.
// One that claims success has lost input.
void refuseLostInput(const std::vector<Process>& processes,
                     const std::vector<ServedChild>& served) {
    for (std::size_t index = 0; index < processes.size(); ++index) {
        const int status = processes[index].status;
        if (served[index].inputRefused && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            throw SystemError("write", EPIPE);
        }
    }
}

} // namespace

struct Pipe::Impl {
    std::vector<Process> processes;
    bool launched = false;
};

CommonFlags::~CommonFlags() = default;
PipeFlags::~PipeFlags() = default;
Pipe::Pipe() : impl_(new Impl) {}
Pipe::~Pipe() = default;

void Pipe::addProcess(const std::string& program, const std::vector<std::string>& arguments,
                      const CommonFlags& flags) {
    if (impl_->launched) {
        throw std::logic_error("adding processes to the launched pipe is prohibited");
    }
    impl_->processes.push_back({program, arguments, flags});
}

void Pipe::launch() {
    if (impl_->launched) {
        throw std::logic_error("the pipe has been launched already");
    }
    std::vector<Process>& processes = impl_->processes;
    if (processes.empty()) {
        throw std::logic_error("No processes to launch were assigned so far");
    }
    impl_->launched = true;
    for (Process& process : processes) {
        completeFlags(process.flags, *this);
    }

    std::vector<ServedChild> served(processes.size());
    ProcessSet children(processes.size());
    SigchldBlock sigchld;
    ProcessSetCatcher catcher(children);
    catcher.install();
    // After the catcher, of which there can be only one: of two guards in two threads, the
    // first to be destroyed would leave the other pipe unprotected.
    SigpipeGuard sigpipe;
    try {
        startAndServe(processes, served, children, catcher, sigchld);
    } catch (...) {
        sigchld.blockAgain();
        served.clear(); // end of file for children that wait for input
        endChildren(children, patience);
        takeStatuses(processes, children);
        throw;
    }
    takeStatuses(processes, children);
    sigpipe.restore();
    catcher.remove();
    sigchld.restore();
    refuseLostInput(processes, served);
}

bool Pipe::launched() const {
    return impl_->launched;
}

std::size_t Pipe::size() const {
    return impl_->processes.size();
}

pid_t Pipe::pid(std::size_t index) const {
    return impl_->processes.at(index).pid;
}

int Pipe::status(std::size_t index) const {
    return impl_->processes.at(index).status;
}

} // namespace torva::process
