// What main() does around the configuration run: prepares the process before it, and turns
// an error into a message and an exit status.
#pragma once

#include <boost/function.hpp>

namespace torva::app {

/// Sets what a careless parent may have left in a bad state. SIGCHLD gets its default
/// action (if it were ignored, the exit status of every child would be lost). SIGPIPE gets
/// an empty handler if its action is the default (a reader that is gone must not end the
/// run between two files; children get the default). Each closed descriptor of 0 to 2
/// becomes "/dev/null" (otherwise the next opened file would take its number, and messages
/// would be written to it). The umask becomes 022 (Postfix's accounts must be able to read
/// the panel's tables, and only root may write them). Best effort.
void makeWorldSane();

/// Calls the run and returns the exit status of the process.
///
/// \param run  the configuration run
/// \return 0; 1 after a std::exception, printed as "Fatal error: TYPE(TEXT)";
///         2 after anything else, printed as "UNSPECIFIED ERROR OCCURED"
int entryPoint(const boost::function<void()>& run);

} // namespace torva::app
