#include "ctl/rehearsal/WatchedTool.h"

#include "torva/process/Launch.h"
#include "torva/process/SystemCall.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::ctl::rehearsal {
namespace {

process::Descriptor emptyFile() {
    return process::Descriptor(
        process::systemCall("memfd_create", [] { return ::memfd_create("tool", MFD_CLOEXEC); }));
}

// The input as a file: if the program does not read it, no writer blocks.
process::Descriptor fileWith(const std::string& text) {
    process::Descriptor file = emptyFile();
    for (std::size_t done = 0; done < text.size();) {
        done += static_cast<std::size_t>(process::systemCall("write", [&] {
            return ::pwrite(file.get(), text.data() + done, text.size() - done,
                            static_cast<off_t>(done));
        }));
    }
    return file;
}

// Reads once; false at the end of the output.
bool readSome(int fd, std::string& text) {
    std::array<char, 4096> chunk;
    const ssize_t size =
        process::systemCall("read", [&] { return ::read(fd, chunk.data(), chunk.size()); });
    text.append(chunk.data(), static_cast<std::size_t>(size));
    return size > 0;
}

// With our own offsets: a child that is still running shares the offset of the descriptor.
std::string contentsOf(const process::Descriptor& file) {
    std::string text;
    std::array<char, 4096> chunk;
    for (;;) {
        const ssize_t size = process::systemCall("pread", [&] {
            return ::pread(file.get(), chunk.data(), chunk.size(), static_cast<off_t>(text.size()));
        });
        if (size == 0) {
            return text;
        }
        text.append(chunk.data(), static_cast<std::size_t>(size));
    }
}

// Readable when the process has ended, see pidfd_open(2).
process::Descriptor endOf(pid_t pid) {
    return process::Descriptor(static_cast<int>(
        process::systemCall("pidfd_open", [pid] { return ::syscall(SYS_pidfd_open, pid, 0); })));
}

// Waits for the end of the output, then for that of the program: one that has closed its
// streams may go on for ever. False: the deadline came first.
bool awaitEnd(MailLog& log, pid_t pid, int said, const Deadline& deadline, std::string& output) {
    Wake wake = Wake::logged;
    bool isOpen = true;
    while (isOpen && wake != Wake::late) {
        wake = log.wait(said, POLLIN, deadline);
        isOpen = wake != Wake::ready || readSome(said, output);
    }
    const process::Descriptor end = endOf(pid);
    while (wake != Wake::late) {
        wake = log.wait(end.get(), POLLIN, deadline);
        if (wake == Wake::ready) {
            return true;
        }
    }
    return false;
}

/// A program in a session of its own. Kills what is left of the session at the end, and
/// waits for the program.
class Session {
public:
    explicit Session(pid_t leader) : leader_(leader) {}
    ~Session() {
        if (!leaderHasEnded_) {
            ::kill(-leader_, SIGKILL);
            process::retried([&] { return ::waitpid(leader_, nullptr, 0); });
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Waits for the program. Its children may go on.
    int waitForLeader() {
        leaderHasEnded_ = true;
        return process::waitForExit(leader_);
    }

    /// \param status  of the program, when it had already ended
    /// \return whether it had
    bool killAll(int& status) {
        // A child may hold the output open after the program has ended.
        const bool hadEnded =
            process::retried([&] { return ::waitpid(leader_, &status, WNOHANG); }) != 0;
        leaderHasEnded_ = hadEnded;
        ::kill(-leader_, SIGKILL);
        if (!hadEnded) {
            status = waitForLeader();
        }
        return hadEnded;
    }

private:
    const pid_t leader_;
    bool leaderHasEnded_ = false;
};

} // namespace

bool ToolOutcome::succeeded() const {
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ToolOutcome runWatched(MailLog& log, const std::vector<std::string>& command,
                       const Deadline& deadline, const std::string& input) {
    const process::Descriptor given = fileWith(input);
    const process::Descriptor complaints = emptyFile();
    process::PipeEnds said = process::openPipe("pipe");
    process::LaunchRequest request;
    request.program = command.at(0);
    request.arguments = command;
    request.searchPath = true;
    request.input = {process::ChildStream::Kind::descriptor, given.get()};
    request.output = {process::ChildStream::Kind::descriptor, said.write.get()};
    request.error = {process::ChildStream::Kind::descriptor, complaints.get()};
    // A new session, so that its children can be killed with it.
    request.newSession = true;
    request.closeOtherDescriptors = true;
    const process::LaunchResult started = process::launch(request);
    Session session(started.pid);
    said.write.release();

    ToolOutcome outcome;
    outcome.ended = awaitEnd(log, started.pid, said.read.get(), deadline, outcome.output);
    if (outcome.ended) {
        outcome.status = session.waitForLeader();
    } else {
        outcome.ended = session.killAll(outcome.status);
    }
    outcome.error = contentsOf(complaints);
    return outcome;
}

} // namespace torva::ctl::rehearsal
