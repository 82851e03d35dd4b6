// Code that may hang, in a separate process.
#pragma once

#include <functional>
#include <string>

namespace torva::test {

/// Runs the function in another process, with its own log, for at most five minutes.
///
/// \return what it wrote to its log, one message in a line, after its result: "-1\n3 Unable
///         to ...\n"; "hangs" when it was ended by us, "died" when it ended otherwise
std::string bounded(const std::function<int()>& function);

} // namespace torva::test
