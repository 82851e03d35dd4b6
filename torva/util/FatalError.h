// The one place that prints an exception which ended the run.
#pragma once

#include <exception>

namespace torva {

/// Writes "Fatal error: TYPE(TEXT)" and a line feed to the utility error stream: the
/// dynamic type of the exception, demangled where possible, and its what(). If the object
/// is also a Traceback, the trace follows.
void printFatalError(const std::exception& error);

} // namespace torva
