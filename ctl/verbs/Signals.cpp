#include "ctl/verbs/Signals.h"

#include "ctl/host/Program.h"
#include "ctl/verbs/Failure.h"

#include <csignal>

namespace torva::ctl {

namespace {

volatile std::sig_atomic_t received = 0;

void remember(int signal) {
    received = signal;
}

void forget(int) {}

/// A handler and not SIG_IGN, which children would inherit.
void handle(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction present {};
        if (signal == SIGHUP && ::sigaction(signal, nullptr, &present) == 0 &&
            present.sa_handler == SIG_IGN) {
            continue; // nohup(1): for us, and for the programs that we start
        }
        ::sigaction(signal, &action, nullptr);
    }
}

} // namespace

void holdSignals() {
    handle(&remember);
}

void throwIfSignalled() {
    if (received != 0) {
        throw Failure("signal", "asked to end by signal " + std::to_string(received), "");
    }
}

void ignoreSignals() {
    handle(&forget);
}

void endAtSignals() {
    holdSignals();
    afterEachProgram([] {
        if (received != 0) {
            throw Interrupted{received};
        }
    });
}

void obeySignals() {
    afterEachProgram(nullptr);
    handle(SIG_DFL);
}

} // namespace torva::ctl
