// Makes sure that a file exists before a Postfix program opens it.
#pragma once

#include <string>

namespace torva::app {

/// Creates a missing file, empty, with mode 0644 minus the umask; an existing one is not
/// changed. A failure is ignored: the program that needs the file reports it. Never blocks,
/// not even on a FIFO. Where another account may write, a link is not followed.
void touchFile(const std::string& path);

} // namespace torva::app
