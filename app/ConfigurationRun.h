// The configuration run: Postfix's parameters, tables and services fitted to the
// panel, in one fixed sequence of steps. Its phases are TablesPhase.h,
// MainCfPhase.h and ServicesPhase.h; what an error becomes is EntryPoint.h.
#pragma once

namespace torva::app {

/// Carries out the whole run. Progress goes to std::clog when the environment
/// variable TORVA_INSTALLER_DEBUG is set to anything but "0".
///
/// \throws every failure, as it came; the steps before it stay applied, and
///         master.cf is written by the last step only
void configurationRun();

} // namespace torva::app
