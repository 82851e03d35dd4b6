// The one place that prints an exception which ended the run.
#pragma once

#include <exception>

namespace torva {

/// Writes "Fatal error: TYPE(TEXT)" and a line end to the utility error stream:
/// the dynamic type of the exception, demangled where possible, and its what().
/// When the object is a Traceback too, the trace follows.
void printFatalError(const std::exception& error);

} // namespace torva
