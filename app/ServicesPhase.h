// The run's third phase: the panel's services in master.cf.
#pragma once

namespace torva::app {

class Progress;

/// Does the phase; the first error ends it and passes through. master.cf is written by the
/// last step, and only when something in it changes.
void servicesPhase(const Progress& progress);

} // namespace torva::app
