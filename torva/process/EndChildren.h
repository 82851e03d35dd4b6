// Ends the children of a pipe that has failed. Waiting for a child that ends by itself is
// waitForExit() in torva/process/Launch.h.
// Private to the library: not installed.
#pragma once

#include <chrono>

namespace torva::process {

class ProcessSet;

/// Ends and reaps all running children of a set. It first waits for them to end by
/// themselves, which most do at the end of their input (so that a tool that is writing a
/// table is not interrupted), then sends SIGTERM, and after the same time SIGKILL. See
/// sigtimedwait(2).
///
/// \param children  receives the statuses; a child that was reaped elsewhere keeps 0
/// \param patience  how long to wait before each of the two signals
/// Before the call, SIGCHLD must be blocked, and our ends of the children's pipes closed.
void endChildren(ProcessSet& children, std::chrono::milliseconds patience) noexcept;

} // namespace torva::process
