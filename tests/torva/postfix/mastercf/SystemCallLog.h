// The system calls with which a file is read or replaced, seen and made to fail: chmod,
// fchmod, rename, fsync, flock and mmap of the test executables of this folder note that they
// were called and then do the system call.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace torva::mail::postfix::testing {

/// While it exists, calls are noted; there is one at most.
class SystemCallLog {
public:
    SystemCallLog();
    ~SystemCallLog();
    SystemCallLog(const SystemCallLog&) = delete;
    SystemCallLog& operator=(const SystemCallLog&) = delete;

    /// Makes a call fail: from now on calls whose note begins so do nothing and set
    /// errno.
    void fail(const std::string& beginning, int error);

    /// Runs something right before a call whose note begins so.
    void before(const std::string& beginning, std::function<void()> action);

    /// "chmod NAME MODE", "fchmod NAME MODE", "rename FROM TO", "fsync file", "fsync directory",
    /// "flock NAME"; names without their directories, the six characters of a
    /// temporary file as "XXXXXX". " on descriptor N" follows where N is a number of the
    /// standard streams; mmap is noted only then.
    const std::vector<std::string>& calls() const { return calls_; }

    /// Notes a call. \return errno value that it is to fail with; 0: none
    int note(const std::string& call);

private:
    std::vector<std::string> calls_;
    std::string failing_;
    int error_ = 0;
    std::string watched_;
    std::function<void()> action_;
};

} // namespace torva::mail::postfix::testing
