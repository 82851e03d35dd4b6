"""apply, killed at any moment: the next call says so, and rollback repairs it.

    kill_test.py PROGRAM GroupTest|CompanionTest|RollbackTest
"""

import fcntl
import signal
import time

import ctlworld
import pairs
from ctlworld import BACKUPS, MARKER, POSTFIX, TABLES, CtlTest, QuietCheckTest, ctl, kill_group, start, tree, wait_until
from filewatch import FileWatch

EARLY_MOMENTS = 5
LATER_MOMENTS = 15


class Killed(CtlTest):
    """A host on which nearly everything that a run changes exists before the run."""

    def setUp(self):
        super().setUp()
        pairs.links()
        self.addCleanup(ctlworld.remove, "/etc/postfix-site")
        self.addCleanup(ctlworld.remove, "/etc/mail")
        self.addCleanup(ctlworld.remove, "/etc/mail-aliases")
        pairs.lay_out_tables()
        self.before = tree()

    def number_of_changes(self, verb):
        with watch() as changes:
            self.assertStatus(0, ctl(verb))
            return changes.changes()

    def assertRepaired(self, what):
        """What the next calls say and do; answers whether files had been changed."""
        marked = MARKER.exists()
        changed = marked and not MARKER.read_text().endswith(" -\n")
        stopped = ctl("backups", "--json").findings("warning", "stop")
        at_work = any(finding["subject"] == "lock" for finding in stopped)
        if marked and not at_work:
            self.assertIn("unfinished", {finding["subject"] for finding in stopped}, what)
        repairable = marked or any(BACKUPS.glob("[0-9]*"))
        outcome = ctl("rollback", "--json")
        self.assertEqual(outcome.status, 0 if repairable else 1, f"{what}: {outcome}")
        self.assertSame(self.before, what)
        self.assertFalse(MARKER.exists(), what)
        self.assertFalse((BACKUPS / ".partial").exists(), what)
        return changed

    def kill_at_all_moments(self, verb, end):
        """Some milliseconds after its start, while it looks at the host and takes the backup,
        and then again and again while it changes the host."""
        number = self.number_of_changes(verb)
        self.assertGreater(number, 2 * LATER_MOMENTS)
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after a whole apply")
        amid = 0
        for moment in range(EARLY_MOMENTS + LATER_MOMENTS):
            ctlworld.remove(BACKUPS)
            with watch() as changes:
                process = start(verb)
                if moment < EARLY_MOMENTS:
                    time.sleep(0.01 * (moment + 1))
                else:
                    changes.wait_for(number * (moment - EARLY_MOMENTS) // LATER_MOMENTS + 1, process)
                    time.sleep(0.001 * (moment % 4))
            ended = process.poll() is not None
            end(process)
            amid += self.assertRepaired(f"moment {moment}") and not ended
        self.assertGreaterEqual(amid, LATER_MOMENTS * 2 // 3, "too few were killed while they changed the host")


def watch():
    return FileWatch(POSTFIX, "/etc/postfix-site", TABLES)


class GroupTest(Killed):
    def test_apply_killed_with_all_that_it_started(self):
        self.kill_at_all_moments("apply", kill_group)


class CompanionTest(Killed):
    def test_apply_killed_alone_while_its_run_goes_on(self):
        def end(process):
            process.send_signal(signal.SIGKILL)
            process.wait()
        self.kill_at_all_moments("apply", end)


class RollbackTest(Killed, QuietCheckTest):
    def test_rollback_killed_is_finished_by_the_next(self):
        self.assertStatus(0, ctl("apply"))
        applied = tree()
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after a whole rollback")
        amid = 0
        for moment in range(5):
            ctlworld.remove(BACKUPS)
            self.assertStatus(0, ctl("apply"))
            # While somebody holds this lock, a rollback waits before its first change.
            with open("/run/lock/torva-postfix/run", "w") as held:
                fcntl.flock(held, fcntl.LOCK_EX)
                process = start("rollback")
                wait_until(lambda: MARKER.exists() or process.poll() is not None, "the first change")
                if moment == 0:
                    kill_group(process)
            time.sleep(0.01 * moment)
            kill_group(process)
            amid += MARKER.exists()
            self.assertStatus(0, ctl("rollback"))
            self.assertSame(self.before, f"moment {moment}")
            self.assertFalse(MARKER.exists())
        self.assertGreaterEqual(amid, 1, "none was killed while it changed the host")
        self.assertNotEqual(applied, self.before)


if __name__ == "__main__":
    ctlworld.main()
