// The verbs. Each takes the request, prints through the report, and returns the exit status
// of the program.
#pragma once

#include "ctl/backup/Lock.h"
#include "ctl/host/Host.h"
#include "ctl/report/Report.h"
#include "ctl/verbs/CommandLine.h"

namespace torva::ctl {

/// The arguments of all verbs.
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

/// Reports an apply or rollback that is at work or was killed.
void noteUnfinished(Report& report);

/// Takes the lock for changing the host.
///
/// \param patience  see HostLock
/// \throws Failure  another verb is at work; as HostLock
HostLock lockHost(int patience);

/// Waits for what a killed verb may have started, see RunLock.
///
/// \throws Failure  it is still at work; as RunLock
void awaitEarlierRun();

} // namespace torva::ctl
