// The system calls with which a table's files are replaced, for tests that must act
// right before one of them, or to make it fail: chmod, chown, fchmod, fchown, link,
// read, readlink and rename of the test executables of this folder.
#pragma once

#include <functional>
#include <string>

namespace torva::test {

/// While it exists, the action runs before each such call; there is one at most.
class CallHook {
public:
    /// \param action  gets the name of the call, and its path or, of a descriptor, "";
    ///                answers the errno value that it is to fail with; 0: none
    explicit CallHook(std::function<int(const std::string& call, const std::string& path)> action);
    ~CallHook();
    CallHook(const CallHook&) = delete;
    CallHook& operator=(const CallHook&) = delete;
};

} // namespace torva::test
