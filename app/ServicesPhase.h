// The run's third phase: the panel's services in master.cf.
#pragma once

namespace torva::app {

class Progress;

/// Carries out the phase; every error ends it and passes through. master.cf is
/// written by its last step, and only when something in it changes.
void servicesPhase(const Progress& progress);

} // namespace torva::app
