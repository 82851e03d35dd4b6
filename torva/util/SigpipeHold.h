// Suppresses SIGPIPE in the calling thread during its lifetime, for writing to a stream
// whose reader may be gone. The plain functions are torva/libc/sigpipe.h.
// Private to the library: not installed.
#pragma once

#include "torva/libc/sigpipe.h"

namespace torva {

class SigpipeHold {
public:
    SigpipeHold() : held_(sigpipe_hold()) {}
    ~SigpipeHold() { sigpipe_release(held_); }
    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

private:
    int held_;
};

} // namespace torva
