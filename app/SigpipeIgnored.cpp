#include "app/SigpipeIgnored.h"

namespace torva::app {

// sigaction(2) cannot fail for this signal.

SigpipeIgnored::SigpipeIgnored() noexcept {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, &previous_);
}

SigpipeIgnored::~SigpipeIgnored() {
    ::sigaction(SIGPIPE, &previous_, nullptr);
}

} // namespace torva::app
