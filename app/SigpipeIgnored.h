// Protects commands that write to our own standard error from a reader that has gone.
#pragma once

#include <csignal>

namespace torva::app {

/// During its lifetime SIGPIPE is ignored, and so it is in every program that is started:
/// a command that only prints a warning to our standard error, whose reader has gone, goes
/// on and ends with its own status (see signal(7), execve(2)). For commands whose standard
/// error is ours; those of torva/process/Pipe.h write to pipes that we read. The action
/// belongs to the whole process. Keeps errno.
class SigpipeIgnored {
public:
    SigpipeIgnored() noexcept;
    ~SigpipeIgnored();
    SigpipeIgnored(const SigpipeIgnored&) = delete;
    SigpipeIgnored& operator=(const SigpipeIgnored&) = delete;

private:
    struct sigaction previous_ = {};
};

} // namespace torva::app
