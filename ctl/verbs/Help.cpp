#include "ctl/verbs/Help.h"

#include <map>

namespace torva::ctl {

namespace {

const char general[] = R"(usage: torva-postfixctl [--json] VERB [ARGUMENT...]

  check             what on this host would stop a run, or the mail after it
  preview           the exact result of a run, on a private copy of this host
  apply             check, backup, the run, "postfix check"; all or nothing
  diff [STAMP]      what has changed since the apply
  rollback [STAMP]  brings back what was there before the apply
  backups           lists the backups

  --json            one JSON object a line; bytes that are not ASCII stand as
                    \u0080 to \u00ff
  -h, --help        this text; behind a verb, what that verb takes
  --version

One apply or rollback at a time; when one was killed, rollback finishes the job.
)";

const char checkHelp[] = R"(usage: torva-postfixctl [--json] check

Looks at the host, changes nothing. A line for each finding: ok, warning (the
run will work, mail will not) or stop (the run would fail), with what to do.
Exit status 1 when a line says stop.
)";

const char previewHelp[] = R"(usage: torva-postfixctl [--json] preview [OPTION...]

Runs torva-postfix-setup in a private copy of this host, shows what would
change, and exits with its exit status.

  --keep DIR        keeps the resulting files in the new or empty directory DIR
  --deliver         starts Postfix in the copy, sends four messages, and tells
                    what became of them
  --empty-tables    as the option of apply
  --panel-accounts  for a machine without the panel: as if its accounts existed
)";

const char applyHelp[] = R"(usage: torva-postfixctl [--json] apply [OPTION...]

Check, backup, the run, "postfix check". Any failure brings the backup back
(exit status 1; 2 when that failed too).

  --reload          reloads a running Postfix; it is stopped and
                    started where a reload does not suffice
  --empty-tables    leaves the panel's tables as the run makes them; else the
                    records that it drops are put back
)";

const char diffHelp[] = R"(usage: torva-postfixctl [--json] diff [STAMP]

Lists what has changed since an apply ended, by setting, service, table record
and file: the newest apply, or the one whose backup is STAMP. Exit status 0:
nothing; 1: what is listed; 2: it cannot be told.
)";

const char rollbackHelp[] = R"(usage: torva-postfixctl [--json] rollback [OPTION...] [STAMP]

Brings back the state before the newest apply, or before the first of several
in a row, or the backup STAMP. What there is now is backed up first. Where
something has changed since the apply, it is listed, and nothing is done.

  --force           goes on all the same
  --reload          reloads a running Postfix, as for apply
)";

const char backupsHelp[] = R"(usage: torva-postfixctl [--json] backups [--prune N]

Lists the backups, /var/backups/torva-postfix/STAMP.

  --prune N         removes all but the newest N, and but the one that rollback
                    goes to
)";

} // namespace

std::string helpFor(const std::string& verb) {
    static const std::map<std::string, const char*> texts{
        {"check", checkHelp}, {"preview", previewHelp},   {"apply", applyHelp},
        {"diff", diffHelp},   {"rollback", rollbackHelp}, {"backups", backupsHelp}};
    const auto found = texts.find(verb);
    return found == texts.end() ? general : found->second;
}

} // namespace torva::ctl
