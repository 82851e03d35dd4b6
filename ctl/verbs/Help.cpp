#include "ctl/verbs/Help.h"

#include <map>

namespace torva::ctl {

namespace {

const char general[] = R"(usage: torva-postfixctl [--json] VERB [ARGUMENT...]

  check             what on this host would stop a run, or the mail after it
  preview           the exact result of a run, on a private copy of this host
  apply             check, backup, the run, "postfix check"; all or nothing
  diff [STAMP]      what has changed since the apply
  rollback [STAMP]  restores the state before the apply
  backups           lists the backups

  --json            one JSON object per line; bytes that are not ASCII are
                    written as \u0080 to \u00ff
  -h, --help        this text; after a verb, the options of that verb
  --version

Only one apply or rollback at a time; if one was killed, rollback finishes the
job.
)";

const char checkHelp[] = R"(usage: torva-postfixctl [--json] check

Examines the host, changes nothing. A line for each finding: ok, warning (the
run will work, mail will not) or stop (the run would fail), with what to do.
Exit status 1 when a line says stop.
)";

const char previewHelp[] = R"(usage: torva-postfixctl [--json] preview [OPTION...]

Runs torva-postfix-setup in a private copy of this host, shows what would
change, and exits with its exit status.

  --keep DIR        keeps the resulting files in the new or empty directory DIR
  --deliver         starts Postfix in the copy, sends four messages, and tells
                    what happened to them
  --empty-tables    as for apply
  --panel-accounts  for a machine without the panel: creates its accounts there
)";

const char applyHelp[] = R"(usage: torva-postfixctl [--json] apply [OPTION...]

Check, backup, the run, "postfix check". Any failure restores the backup
(exit status 1; 2 when that failed too).

  --reload          reloads a running Postfix, or stops and starts it if a
                    reload is not enough
  --empty-tables    leaves the panel's tables as the run creates them; without
                    this, the records that it drops are put back
)";

const char diffHelp[] = R"(usage: torva-postfixctl [--json] diff [STAMP]

Lists what has changed since an apply ended, by setting, service, table record
and file: the newest apply, or the one whose backup is STAMP. Exit status 0:
no changes; 1: changes are listed; 2: they cannot be determined.
)";

const char rollbackHelp[] = R"(usage: torva-postfixctl [--json] rollback [OPTION...] [STAMP]

Restores the state before the newest apply, or before the first of several in
a row, or the backup STAMP. The current state is backed up first. If something
has changed since the apply, it is listed, and nothing is done.

  --force           goes on anyway
  --reload          reloads a running Postfix, as for apply
)";

const char backupsHelp[] = R"(usage: torva-postfixctl [--json] backups [--prune N]

Lists the backups, /var/backups/torva-postfix/STAMP.

  --prune N         removes all but the newest N, the one that rollback would
                    restore, and one that is needed to finish a killed verb
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
