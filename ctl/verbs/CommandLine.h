// The command line of the companion.
#pragma once

#include <string>
#include <vector>

namespace torva::ctl {

/// What is asked for.
struct Request {
    std::string verb; ///< empty: nothing, the command line said it all or was refused
    int status = 0;   ///< exit status when the verb is empty
    bool json = false;
    bool reload = false;             ///< apply, rollback: a running Postfix takes it up
    bool emptyTables = false;        ///< apply, preview: records are not put back
    bool force = false;              ///< rollback: changes since the apply do not matter
    bool panelAccounts = false;      ///< preview: as if the panel's accounts were there
    bool deliver = false;            ///< preview: rehearse mail
    std::string keep;                ///< preview: where the resulting files are kept
    std::string stamp;               ///< rollback, diff: the backup; empty: the newest that fits
    int prune = -1;                  ///< backups: how many to keep; -1: all
    std::vector<std::string> inside; ///< preview, in the private world: see PreviewInside.h
    int archive = -1;                ///< the same: where the resulting files go
};

/// Reads the arguments. Help and version go to standard output; what is not understood
/// is told on standard error, with status 1.
Request readCommandLine(int count, char** arguments);

} // namespace torva::ctl
