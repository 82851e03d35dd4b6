// Signals that ask the companion to end. A verb that changes the host goes on until it can
// end safely.
#pragma once

namespace torva::ctl {

/// From now on, SIGHUP, SIGINT and SIGTERM are only remembered; they still end the programs
/// that were started.
void holdSignals();

/// \throws Failure  one has arrived
void throwIfSignalled();

/// From now on they are ignored.
void ignoreSignals();

} // namespace torva::ctl
