#include "torva/process/Launch.h"

#include "torva/process/ChildSide.h"
#include "torva/process/ErrorRelay.h"
#include "torva/process/SystemCall.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::process {
namespace {

// The messages and the direction of one standard stream.
struct StreamTraits {
    const char* pipe;
    const char* nullOpen;
    const char* invalid;
    int nullFlags;
};

constexpr StreamTraits inputTraits = {"stdin pipe", "stdin /dev/null open", "invalid FD for stdin",
                                      O_RDONLY};
constexpr StreamTraits outputTraits = {"stdout pipe", "stdout /dev/null open",
                                       "invalid FD for stdout", O_WRONLY};
constexpr StreamTraits errorTraits = {"stderr pipe", "stderr /dev/null open",
                                      "invalid FD for stderr", O_WRONLY};

// One stream, made ready for both sides.
struct PreparedStream {
    int fd = -1;       // for the child; -1: inherited
    Descriptor child;  // what fd is, when it was opened here
    Descriptor parent; // the other end of a new pipe
};

PreparedStream prepare(const ChildStream& stream, const StreamTraits& traits) {
    PreparedStream prepared;
    switch (stream.kind) {
    case ChildStream::Kind::inherited:
        break;
    case ChildStream::Kind::nullDevice:
        prepared.child = openNullDevice(traits.nullFlags, traits.nullOpen);
        prepared.fd = prepared.child.get();
        break;
    case ChildStream::Kind::newPipe: {
        PipeEnds ends = openPipe(traits.pipe);
        const bool childReads = traits.nullFlags == O_RDONLY;
        prepared.child = std::move(childReads ? ends.read : ends.write);
        prepared.parent = std::move(childReads ? ends.write : ends.read);
        prepared.fd = prepared.child.get();
        break;
    }
    case ChildStream::Kind::descriptor:
        if (stream.fd < 0) {
            throw std::invalid_argument(traits.invalid);
        }
        prepared.fd = stream.fd;
        break;
    }
    return prepared;
}

ChildStream withPinnedDescriptor(ChildStream stream) {
    if (stream.kind == ChildStream::Kind::descriptor) {
        stream.fd = pinned(stream.fd);
    }
    return stream;
}

// For the exec family, which promises not to change what it is given.
std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Buffered output would be written twice, by us and by the exit(3) of a failing child.
void flushStandardStreams() {
    std::cout.flush();
    std::cerr.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

// Returns when the child executes its program, because exec closes the other end.
void awaitExec(Descriptor& control) {
    ErrorReader reader(std::clog);
    char chunk[1024];
    while (const ssize_t count = systemCall(
               "control pipe read", [&] { return ::read(control.get(), chunk, sizeof(chunk)); })) {
        reader.feed(chunk, static_cast<std::size_t>(count));
    }
    reader.finish();
    control.release();
    reader.throwIfFailed();
}

} // namespace

LaunchResult launch(const LaunchRequest& request, pid_t* forked) {
    const ChildStream inputStream = withPinnedDescriptor(request.input);
    const ChildStream outputStream = withPinnedDescriptor(request.output);
    const ChildStream errorStream = withPinnedDescriptor(request.error);
    PipeEnds control = openPipe("pipe");
    PreparedStream input = prepare(inputStream, inputTraits);
    PreparedStream output = prepare(outputStream, outputTraits);
    PreparedStream error = prepare(errorStream, errorTraits);

    // The child allocates nothing on its way to exec.
    const std::vector<char*> arguments = pointersTo(request.arguments);
    std::vector<char*> environment;
    if (request.environment != nullptr) {
        environment = pointersTo(*request.environment);
    }
    ChildPlan plan = {};
    plan.program = request.program.c_str();
    plan.arguments = arguments.data();
    plan.environment = request.environment != nullptr ? environment.data() : nullptr;
    plan.searchPath = request.searchPath;
    plan.workingDirectory =
        request.workingDirectory.empty() ? nullptr : request.workingDirectory.c_str();
    plan.prepared = {input.fd, output.fd, error.fd};
    plan.controlFd = control.write.get();
    plan.closeOtherDescriptors = request.closeOtherDescriptors;
    plan.newSession = request.newSession;
    plan.preExecHook = &request.preExecHook;
    plan.signalMask = request.signalMask;

    flushStandardStreams();
    const pid_t pid = systemCall("fork", [] { return ::fork(); });
    if (pid == 0) {
        runChild(plan);
    }
    if (forked != nullptr) {
        *forked = pid;
    }
    input.child.release();
    output.child.release();
    error.child.release();
    control.write.release();
    awaitExec(control.read);
    return {pid, std::move(input.parent), std::move(output.parent), std::move(error.parent)};
}

int waitForExit(pid_t pid) {
    int status = 0;
    systemCall("unable to wait for child process exit",
               [pid, &status] { return ::waitpid(pid, &status, 0); });
    return status;
}

void waitForLostChildren() noexcept {
    const int saved = errno;
    while (retried([] { return ::waitpid(-1, nullptr, 0); }) != -1) {
    }
    errno = saved;
}

} // namespace torva::process
