// Makes chosen system calls of this process fail, see seccomp(2), for failures
// that cannot be produced otherwise. Permanent, and for all children: only in a
// separate subprocess.
#pragma once

#include "ProcessFixture.h"

#include <cstdint>
#include <vector>

namespace torva::process::testing {

/// Which calls fail, and how.
struct FailingCall {
    long number;             ///< SYS_...
    int error;               ///< errno value of the failure
    int argument = -1;       ///< index of the argument to look at; -1: every call fails
    std::uint32_t value = 0; ///< low half of that argument
};

/// Whether this machine can do that at all.
bool canFailSystemCalls();

/// \throws std::runtime_error  refused
void failSystemCalls(const std::vector<FailingCall>& calls);

/// A test that needs them, skipped with the reason where there are none.
class FailingCallTest : public ProcessTest {
protected:
    void SetUp() override;
};

} // namespace torva::process::testing
