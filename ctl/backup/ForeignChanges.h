// What somebody else has changed on the host while a run was at work: everything that a run
// does not do.
#pragma once

#include "ctl/backup/Changes.h"
#include "ctl/backup/Manifest.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Of the changes between the host before a run and after one, even one that failed, those
/// that the run has not made: other settings, services and records, other lines of main.cf,
/// new comments in master.cf, other files, and files with contents that no run writes.
///
/// \param backup  of the state before; its entries do not matter
/// Where both may have written the same, such as a setting of the panel, it was the run.
std::vector<Change> foreignChanges(const Manifest& backup, const LeftState& before,
                                   const LeftState& now);

/// The lines of a text of main.cf without the settings of the panel, which postconf -e
/// replaces. Comments inside these are among them, as they stay.
std::vector<std::string> linesOfOthers(const std::string& mainCf);

/// Comments in a text of master.cf that were not there before, neither as comments nor as
/// services.
std::vector<std::string> newComments(const std::string& before, const std::string& now);

} // namespace torva::ctl
