// Making sure that a file is there before a Postfix program opens it.
#pragma once

#include <string>

namespace torva::app {

/// Opens a file for appending and closes it: a missing one is created, empty, mode
/// 0644, one that is there is left as it is. A failure is ignored: whatever needs
/// the file reports it, with words of its own. Never waits, not even for a FIFO.
void touchFile(const std::string& path);

} // namespace torva::app
