// What a backup contains about the host, besides its files.
#pragma once

#include "ctl/backup/Backups.h"
#include "ctl/backup/Changes.h"
#include "ctl/backup/Manifest.h"
#include "ctl/host/Host.h"
#include "ctl/report/Report.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// A manifest of this host, for Backups::take().
///
/// \param more  paths besides those that a run may change
/// \throws SystemError  a directory cannot be read
Manifest manifestOf(const Postfix& postfix, const std::string& reason,
                    const std::vector<std::string>& more = {});

/// What to tell of an error that has ended a verb.
Finding troubleOf(const std::exception& error, const std::string& verb);

/// Tells of files that setScratchAside() has moved, and that may be somebody else's.
void printSetAside(Report& report, const std::vector<std::string>& names, const std::string& stamp);

/// What to do about an error of the host: "make room" where that is the reason.
std::string cureOf(const std::exception& error);

/// The same about a backup that could not be made.
std::string cureOfBackup(const std::exception& error);

/// What a verb tells that was given a backup of another instance of Postfix.
Finding otherInstance(const std::string& verb, const Backup& backup);

/// Prints changes, each as a line or an object.
void printChanges(Report& report, const std::vector<Change>& changes);

} // namespace torva::ctl
