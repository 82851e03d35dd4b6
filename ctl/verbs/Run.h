// One run of torva-postfix-setup. Before it, services that it refuses are sheltered; after
// it, these and everything else that must not change are restored.
#pragma once

#include "ctl/backup/Manifest.h"
#include "ctl/host/Host.h"
#include "ctl/report/Finding.h"

#include <vector>

namespace torva::ctl {

struct RunResult {
    int status = 0;                ///< exit status of the tool
    std::vector<Finding> findings; ///< what was done besides the run
};

struct RunOptions {
    int progress = -1;        ///< descriptor for the tool's progress and errors
    bool emptyTables = false; ///< false: records that the run drops from the panel's tables
                              ///< are put back
    bool isCopy = false;      ///< the files are a private copy, which no Postfix reads: where
                              ///< there are many services, those that the run leaves alone
                              ///< are comments for its time
};

/// Runs the tool. The caller must have a backup of the files: after a failure they are left
/// as they are then.
///
/// \param before  the host before, see Backups.h
/// \throws std::exception  something besides the run failed
RunResult performRun(const Host& host, const Manifest& before, const RunOptions& options);

/// The output of "postfix check", each line once, and its exit status; without what needs no
/// correction, see withoutNews().
struct Verdict {
    int status = 0;
    std::string text;
};

/// Runs "postfix check", which makes missing directories of the queue. Debian's Postfix
/// would also refresh the files of its chroot; they stay as they are, unless root may make
/// no namespaces.
Verdict postfixCheck();

} // namespace torva::ctl
