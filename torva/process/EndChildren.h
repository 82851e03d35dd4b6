// The end of children that nobody serves any more, because something went wrong
// beside them. Waiting for a child that ends by itself is waitForExit() in
// torva/process/Launch.h.
// Private to the library: not installed.
#pragma once

#include <chrono>

namespace torva::process {

class ProcessSet;

/// Sees the running children of a set to their end, so that none is left running
/// or unreaped: gives them time to end by themselves, which most do at the end of
/// their input (a tool that is writing a table is not cut off in the middle), then
/// sends SIGTERM, and after the same time again SIGKILL. See sigtimedwait(2).
///
/// \param children  takes the statuses; a child that was reaped elsewhere keeps 0
/// \param patience  how long to wait before each of the two signals
/// SIGCHLD has to be blocked, and our ends of the children's pipes closed.
void endChildren(ProcessSet& children, std::chrono::milliseconds patience) noexcept;

} // namespace torva::process
