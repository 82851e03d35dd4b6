// The run's second phase: main.cf, parameter by parameter, through Postfix's own
// postconf.
#pragma once

namespace torva::app {

class Progress;

/// Does the phase; the first error ends it and passes through, and the steps before it stay
/// applied.
void mainCfPhase(const Progress& progress);

} // namespace torva::app
