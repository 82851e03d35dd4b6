// Signals that ask the companion to end. A verb that changes the host goes on until it can
// end safely; one that only tells removes its temporary files.
#pragma once

namespace torva::ctl {

/// From now on, SIGHUP, SIGINT and SIGTERM are only remembered; they still end the programs
/// that were started.
void holdSignals();

/// \throws Failure  one has arrived
void throwIfSignalled();

/// From now on they are ignored.
void ignoreSignals();

/// A verb that only tells was asked to end.
struct Interrupted {
    int signal;
};

/// From now on, run() ends with Interrupted when one has arrived, so that temporary files go.
void endAtSignals();

/// From now on they have their usual effect.
void obeySignals();

} // namespace torva::ctl
