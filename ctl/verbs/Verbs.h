// The verbs, each a short story. Each takes the request, prints through the report, and
// answers the exit status of the program.
#pragma once

#include "ctl/backup/Lock.h"
#include "ctl/host/Host.h"
#include "ctl/report/Report.h"
#include "ctl/verbs/CommandLine.h"

namespace torva::ctl {

/// What all verbs are given.
struct Call {
    const Request& request;
    const OwnPrograms& programs;
    Report& report;
};

int check(Call& call);
int preview(Call& call);
/// The part of preview that runs in the private world.
int previewInside(Call& call);
int apply(Call& call);
int diff(Call& call);
int rollback(Call& call);
int backups(Call& call);

/// Tells of an apply or rollback that is at work or was killed.
void noteUnfinished(Report& report);

/// Takes the lock of those who change the host.
///
/// \param patience  see HostLock
/// \throws Failure  somebody else is at work; as HostLock
HostLock lockHost(int patience);

} // namespace torva::ctl
