// The configuration run: a fixed sequence of steps that changes Postfix's parameters, tables
// and services for the panel. Its phases are TablesPhase.h, MainCfPhase.h and
// ServicesPhase.h; errors are handled in EntryPoint.h.
#pragma once

namespace torva::app {

/// Does the whole run. Progress goes to std::clog when the environment variable
/// TORVA_INSTALLER_DEBUG is set to anything but "0".
///
/// \throws every failure, unchanged; the steps before it stay applied, and master.cf is
///         written only by the last step
void configurationRun();

} // namespace torva::app
