// Holds SIGPIPE back in the calling thread for as long as it lives, for whoever writes
// to a stream whose reader may have gone. The plain functions are torva/libc/sigpipe.h.
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
