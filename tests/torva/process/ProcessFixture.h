// What the tests of this folder share: the census before and after every test, a shell child
// with captured streams, and a subprocess for tests that change their own process.
#pragma once

#include "torva/process/Pipe.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace torva::process::testing {

/// The numbers of all open descriptors, in order.
std::vector<int> openDescriptors();

/// Open descriptors with what they lead to and their flags, signal mask, actions of
/// SIGCHLD and SIGPIPE, and children, one per line.
std::string census();

/// Takes the census before and after every test.
class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    std::string before_;
};

/// The result of a run.
struct Outcome {
    std::string output;
    std::string error;
    int status = -1;    ///< raw wait status
    int exited() const; ///< exit status; -1: ended by a signal
    int signal() const; ///< that signal; 0: it exited
};

/// An input producer that gives the pieces one per call and, with the last, says
/// that it was the last.
InputProducer pieces(std::vector<std::string> pieces);

/// A consumer that appends to the text.
OutputConsumer into(std::string& text);

/// The argument vector with which /bin/sh runs the script.
std::vector<std::string> shell(const std::string& script);

/// Runs a shell script to its end through a pipe of one process.
///
/// \param input  empty: the script's input is empty, too
Outcome runScript(const std::string& script, const std::vector<std::string>& input = {});

/// The dynamic type, the code where there is one, and the text of what the call
/// throws: "SystemError 2 execv: ..."; "nothing" when it does not throw.
std::string thrownBy(const std::function<void()>& call);

/// What thrownBy() gives for a SystemError.
std::string systemError(const std::string& operation, int code);

/// The same when it has travelled from a child.
std::string relayedSystemError(const std::string& operation, int code);

/// Runs the body in a forked process and returns its output; an exception is
/// added in the form of thrownBy(), and a death by a signal as "signal N".
std::string inSubprocess(const std::function<void(std::ostream&)>& body);

/// The next numbers that new descriptors of this process will get.
std::vector<int> nextDescriptors(std::size_t count);

/// Reads until end of file.
std::string readAll(int fd);

/// Whether the condition holds within ten seconds.
bool eventually(const std::function<bool()>& condition);

} // namespace torva::process::testing
