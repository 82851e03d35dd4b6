// What main() does around the configuration run: a sane world before it, a line
// of text and an exit status after it.
#pragma once

#include <boost/function.hpp>

namespace torva::app {

/// Makes what a careless parent may have left behind harmless: SIGCHLD gets its
/// default action (ignored, it would hide the exit status of every child), SIGPIPE
/// an empty handler where its action is the default (a reader of the output that
/// leaves must not end the run between two files; children get the default), each
/// closed descriptor of 0 to 2 becomes "/dev/null" (or the next file opened would
/// take its number, and messages would be written into it), and the umask becomes
/// 022 (Postfix's accounts must be able to read the panel's tables, and nobody else
/// may write them). Best effort.
void makeWorldSane();

/// Calls the run and turns its outcome into the exit status of the process.
///
/// \param run  the configuration run
/// \return 0; 1 after a std::exception, printed as "Fatal error: TYPE(TEXT)";
///         2 after anything else, printed as "UNSPECIFIED ERROR OCCURED"
int entryPoint(const boost::function<void()>& run);

} // namespace torva::app
