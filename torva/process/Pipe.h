// A set of processes whose standard streams are served by callbacks in one select(2) loop.
// torva/process/Launch.h starts one child, torva/process/ProcessSetCatcher.h reaps it.
// Running a Postfix tool is torva/postfix/params/PostfixTool.h.
#pragma once

#include <boost/function.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace torva::process {

/// Appends the next piece of a process's standard input to the buffer, which is empty on
/// entry, and returns whether more input will follow. It is called only when everything
/// that it gave before has been written.
using InputProducer = boost::function<bool(std::vector<char>& buffer)>;

/// Takes one chunk of a process's output, which is never empty.
using OutputConsumer = boost::function<void(const std::vector<char>& chunk)>;

/// Settings that a process and a whole pipe share.
class CommonFlags {
public:
    virtual ~CommonFlags();

    std::string workingDirectory; ///< empty: inherited
    /// NAME=value texts, not owned, needed until launch() returns; null: inherited
    const std::vector<std::string>* environment = nullptr;
    bool searchPath = false; ///< look the program up in PATH (without an environment only)
    InputProducer input;     ///< empty: not set
    OutputConsumer output;   ///< empty: not set
    OutputConsumer error;    ///< empty: not set
    int inputFd = -1;        ///< descriptor for the process, not closed; -1: not given
    int outputFd = -1;       ///< the same
    int errorFd = -1;        ///< the same
};

/// The defaults of a whole pipe.
class PipeFlags : public CommonFlags {
public:
    ~PipeFlags() override;
};

/// The pipe: add processes, set defaults, launch once, read the results.
class Pipe : public PipeFlags {
public:
    Pipe();
    ~Pipe() override;
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    /// Adds a process.
    ///
    /// \param program    path of the executable
    /// \param arguments  argument vector, argument 0 included
    /// \param flags      settings of this process; those that are not set are taken from
    ///                   the pipe. The environment is different: the pipe's replaces that
    ///                   of a process that has one, and a process without one inherits
    ///                   the parent's
    /// \throws std::logic_error  "adding processes to the launched pipe is prohibited"
    void addProcess(const std::string& program, const std::vector<std::string>& arguments,
                    const CommonFlags& flags = CommonFlags());

    /// Starts every process and serves the streams until all have ended and all
    /// stream pipes are closed. A stream with a callback is a pipe, one with a
    /// descriptor gets that descriptor, one with neither is inherited; a callback
    /// takes precedence over a descriptor.
    ///
    /// While this runs, it handles SIGCHLD and reaps every child of the process that ends,
    /// whoever started it: the statuses of the caller's own children are lost (waitpid(2)
    /// for them fails with ECHILD), and callbacks must not wait for children. Other threads
    /// may run, as long as they do not wait for children meanwhile.
    ///
    /// A producer cannot be fed by a consumer. It is not told when the other child has
    /// ended, and while it has nothing to give, it can only leave the buffer empty and
    /// return true. The pipe then calls it again at the next event of any stream, and
    /// waits for ever when there is none. Collect the output of one pipe, or have it
    /// written to a file, and give it to the next pipe.
    ///
    /// \throws std::logic_error  "the pipe has been launched already", "No processes
    ///         to launch were assigned so far", or "ProcessSetCatcher instance has been
    ///         installed already": another pipe is running, in this thread or another
    /// \throws std::invalid_argument  "invalid FD for stdin" (or "stdout", "stderr"):
    ///         a negative descriptor other than -1
    /// \throws SystemError  a system call failed, here or in a child before exec;
    ///         "write" also when a child exited 0 without reading all its input
    /// \throws whatever a callback throws
    /// How a child ends is not an error here: see status(). After an error no descriptor
    /// and no child is left: the pipes of running children are closed; those that do not
    /// end within three seconds get SIGTERM, and three seconds later SIGKILL. The signal
    /// mask and the signal actions are as before.
    void launch();

    /// Whether launch() has been called with at least one process.
    bool launched() const;

    /// Number of processes added.
    std::size_t size() const;

    /// \param index  position of the process in the order of adding
    /// \throws std::out_of_range  no such process
    pid_t pid(std::size_t index) const;  ///< -1: not started
    int status(std::size_t index) const; ///< raw wait status, see waitpid(2); 0 before launch()

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace torva::process
