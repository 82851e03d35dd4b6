// The command line of the companion.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// The parsed command line.
struct Request {
    std::string verb; ///< empty: nothing is left to do, or the command line is invalid
    int status = 0;   ///< exit status when the verb is empty
    bool json = false;
    bool reload = false;             ///< apply, rollback: reload a running Postfix
    bool emptyTables = false;        ///< apply, preview: records are not put back
    bool force = false;              ///< rollback: ignore changes since the apply
    bool panelAccounts = false;      ///< preview: with the panel's accounts
    bool deliver = false;            ///< preview: rehearse mail
    std::string keep;                ///< preview: directory for the resulting files
    std::string stamp;               ///< rollback, diff: the backup; empty: the newest that fits
    int prune = -1;                  ///< backups: how many to keep; -1: all
    std::vector<std::string> inside; ///< preview, in the private world: see PreviewInside.h
    int archive = -1;                ///< the same: descriptor for the resulting files
};

/// Parses the arguments. Help and version go to standard output; invalid arguments are
/// reported on standard error, with the status of a failure.
Request readCommandLine(int count, char** arguments);

/// The exit status of a verb that could not do its work: 2 for "diff", whose 1 says that
/// something has changed; otherwise 1.
/// \param verb  its name; empty when none was recognized
int statusOfFailure(const std::string& verb);

} // namespace torva::ctl
