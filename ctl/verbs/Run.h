// One run of torva-postfix-setup, with what it cannot take out of its way, and what it
// must not change put back after it.
#pragma once

#include "ctl/backup/Manifest.h"
#include "ctl/host/Host.h"
#include "ctl/report/Finding.h"

#include <vector>

namespace torva::ctl {

struct RunResult {
    int status = 0;                ///< exit status of the tool
    std::vector<Finding> findings; ///< what was done beside the run
};

/// Runs the tool. For those who hold a backup of the files: what ends in between leaves
/// them as they are then.
///
/// \param before       the host as it was, see Backups.h
/// \param progress     descriptor for the tool's progress and errors
/// \param emptyTables  false: records that the run drops from the panel's tables are put
///                     back
/// \throws std::exception  something beside the run failed
RunResult performRun(const Host& host, const Manifest& before, int progress, bool emptyTables);

/// What "postfix check" says, once each, and its exit status.
struct Verdict {
    int status = 0;
    std::string text;
};

/// Runs "postfix check". It makes missing directories of the queue. The files of
/// Postfix's chroot stay as they are, although Debian's Postfix would refresh them; only
/// where root may make no namespaces does it do so.
Verdict postfixCheck();

} // namespace torva::ctl
