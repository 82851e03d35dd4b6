#include "ctl/rehearsal/WatchedTool.h"

#include "torva/process/Launch.h"
#include "torva/process/SystemCall.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace torva::ctl::rehearsal {
namespace {

// Nothing of Postfix prints as much; what a program says beyond it is read, but not kept.
constexpr std::size_t mostKept = std::size_t{16} << 20U;

// The input as a file: if the program does not read it, no writer blocks.
process::Descriptor fileWith(const std::string& text) {
    process::Descriptor file(
        process::systemCall("memfd_create", [] { return ::memfd_create("tool", MFD_CLOEXEC); }));
    for (std::size_t done = 0; done < text.size();) {
        done += static_cast<std::size_t>(process::systemCall("write", [&] {
            return ::pwrite(file.get(), text.data() + done, text.size() - done,
                            static_cast<off_t>(done));
        }));
    }
    return file;
}

/// A stream that a program writes. A pipe: what is written to a file is cut where Postfix's
/// programs limit the size of files to that of a message.
class Stream {
public:
    Stream() : ends_(process::openPipe("pipe")) {
        process::systemCall("fcntl",
                            [this] { return ::fcntl(ends_.read.get(), F_SETFL, O_NONBLOCK); });
    }

    int readEnd() const { return ends_.read.get(); }
    int writeEnd() const { return ends_.write.get(); }
    void closeWriteEnd() { ends_.write.release(); }

    /// Reads what is there now, at most one chunk.
    /// \return whether there may be more, now or later
    bool readSome() {
        std::array<char, 65536> chunk;
        const ssize_t size =
            process::retried([&] { return ::read(ends_.read.get(), chunk.data(), chunk.size()); });
        if (size < 0 && errno != EAGAIN) {
            process::throwLastError("read");
        }
        isEmpty_ = size <= 0;
        const std::size_t room = mostKept - text_.size();
        text_.append(chunk.data(), std::min(room, size > 0 ? static_cast<std::size_t>(size) : 0));
        return size != 0;
    }

    /// Reads what a program has left that has ended. A child may hold the stream open and go
    /// on writing, so this stops after what a pipe can hold.
    void readRest() {
        for (int chunks = 0; chunks < 16 && readSome() && !isEmpty_; ++chunks) {
        }
    }

    const std::string& text() const { return text_; }

private:
    process::PipeEnds ends_;
    std::string text_;
    bool isEmpty_ = false;
};

/// Several descriptors that are waited for as one: its own is readable when one of them is.
class WaitSet {
public:
    WaitSet()
        : set_(process::systemCall("epoll_create1",
                                   [] { return ::epoll_create1(EPOLL_CLOEXEC); })) {}
    void add(int fd) { change(EPOLL_CTL_ADD, fd); }
    void remove(int fd) { change(EPOLL_CTL_DEL, fd); }
    int get() const { return set_.get(); }

private:
    void change(int operation, int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        process::systemCall("epoll_ctl",
                            [&] { return ::epoll_ctl(set_.get(), operation, fd, &event); });
    }

    process::Descriptor set_;
};

// Readable when the process has ended, see pidfd_open(2).
process::Descriptor endOf(pid_t pid) {
    return process::Descriptor(static_cast<int>(
        process::systemCall("pidfd_open", [pid] { return ::syscall(SYS_pidfd_open, pid, 0); })));
}

bool isReadable(const process::Descriptor& file) {
    pollfd wait{file.get(), POLLIN, 0};
    return process::systemCall("poll", [&wait] { return ::poll(&wait, 1, 0); }) > 0;
}

// Waits for the end of the output, then for that of the program: one that has closed its
// streams may go on for ever. Its complaints are read meanwhile, but their end is not awaited.
// False: the deadline came first.
bool awaitEnd(MailLog& log, pid_t pid, Stream& output, Stream& complaints,
              const Deadline& deadline) {
    WaitSet set;
    set.add(output.readEnd());
    set.add(complaints.readEnd());
    bool complains = true;
    process::Descriptor end;
    while (!deadline.over()) {
        if (log.wait(set.get(), POLLIN, deadline) != Wake::ready) {
            continue;
        }
        if (complains && !complaints.readSome()) {
            set.remove(complaints.readEnd());
            complains = false;
        }
        if (end.get() >= 0) {
            if (isReadable(end)) {
                return true;
            }
        } else if (!output.readSome()) {
            set.remove(output.readEnd());
            end = endOf(pid);
            set.add(end.get());
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
    Stream output;
    Stream complaints;
    process::LaunchRequest request;
    request.program = command.at(0);
    request.arguments = command;
    request.searchPath = true;
    request.input = {process::ChildStream::Kind::descriptor, given.get()};
    request.output = {process::ChildStream::Kind::descriptor, output.writeEnd()};
    request.error = {process::ChildStream::Kind::descriptor, complaints.writeEnd()};
    // A new session, so that its children can be killed with it.
    request.newSession = true;
    request.closeOtherDescriptors = true;
    const process::LaunchResult started = process::launch(request);
    Session session(started.pid);
    output.closeWriteEnd();
    complaints.closeWriteEnd();

    ToolOutcome outcome;
    outcome.ended = awaitEnd(log, started.pid, output, complaints, deadline);
    if (outcome.ended) {
        outcome.status = session.waitForLeader();
    } else {
        outcome.ended = session.killAll(outcome.status);
    }
    output.readRest();
    complaints.readRest();
    outcome.output = output.text();
    outcome.error = complaints.text();
    return outcome;
}

} // namespace torva::ctl::rehearsal
