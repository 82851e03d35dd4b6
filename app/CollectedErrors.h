// Protects commands that write to our own standard error from a reader that has gone.
#pragma once

#include "torva/process/Descriptor.h"

namespace torva::app {

/// During its lifetime, what programs that are started write to our standard error is
/// collected in memory; the destructor passes it on. So a command that only prints a warning
/// is not ended by SIGPIPE when the reader of our output has gone (pipe(7)). Where standard
/// error is neither a pipe nor a socket, or there is no memory, it stays what it is.
///
/// For commands that inherit our standard error; those of torva/process/Pipe.h do not.
/// Changes descriptor 2 of the whole process. Keeps errno.
class CollectedErrors {
public:
    CollectedErrors() noexcept;
    ~CollectedErrors();
    CollectedErrors(const CollectedErrors&) = delete;
    CollectedErrors& operator=(const CollectedErrors&) = delete;

private:
    process::Descriptor original_; ///< of standard error; closed: nothing is collected
    process::Descriptor memory_;
};

} // namespace torva::app
