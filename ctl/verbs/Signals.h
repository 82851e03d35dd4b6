// Signals that ask the companion to end. A verb that changes the host goes on until it
// can end in order.
#pragma once

namespace torva::ctl {

/// SIGHUP, SIGINT and SIGTERM are remembered from now on; they end programs that were
/// started as before.
void holdSignals();

/// \throws Failure  one has come
void throwIfSignalled();

/// From now on they do nothing at all.
void ignoreSignals();

} // namespace torva::ctl
