"""Verbs that somebody interrupts, that are killed or fail half-way: nothing is lost, Postfix goes
on running, and what is told to do next works."""

import fcntl
import os
import signal
import subprocess
from pathlib import Path

import ctlworld
from ctlworld import (BACKUPS, CTL, MAIN_CF, MARKER, TABLES, TOOL, AroundARunTest, QuietCheckTest, ctl, kill_group,
                      postconf, program, remove, run, settle, stamps, start, tree, wait_until, write)

MOMENT = Path("/run/moment")  # a stand-in touches it when it has been reached


def is_running():
    return subprocess.run(["postfix", "status"], stderr=subprocess.DEVNULL).returncode == 0


class RunningTest(AroundARunTest):
    """Around a Postfix that is running, and that a restart concerns."""

    def setUp(self):
        super().setUp()
        remove(MOMENT)
        self.addCleanup(remove, MOMENT)
        write(MAIN_CF, MAIN_CF.read_text() + "inet_interfaces = loopback-only\n")
        run("postfix", "start")
        self.addCleanup(run, "postfix", "stop", check=False)

    def postfix_does(self, verb, script):
        """At "postfix VERB", in place of the stand-in of QuietCheckTest."""
        program("/usr/sbin/postfix", f"#!/bin/sh\ncase \"$*\" in\n*check) exit ;;\n{verb}) {script} ;;\nesac\n"
                "exec /usr/sbin/postfix.real \"$@\"\n")

    def test_interrupt_from_the_terminal_leaves_no_postfix_stopped(self):
        for verb in ("apply", "rollback"):
            self.postfix_does("start", ":")
            if verb == "rollback":
                self.assertStatus(0, ctl("apply", "--reload"))
            self.postfix_does("start", f"touch {MOMENT}; sleep 0.5")
            remove(MOMENT)
            process = start(verb, "--reload")
            wait_until(MOMENT.exists, f"the start by {verb}")
            os.killpg(process.pid, signal.SIGINT)
            process.wait()
            self.assertTrue(is_running(), verb)
        self.assertFalse(MARKER.exists())

    def test_command_that_is_told_after_a_start_that_failed_starts_postfix(self):
        self.assertStatus(0, ctl("apply", "--reload"))
        self.postfix_does("start", f"[ -e {MOMENT} ] || {{ touch {MOMENT}; echo 'no luck' >&2; exit 1; }}")
        outcome = self.assertStatus(1, ctl("rollback", "--reload", "--json"))
        told = outcome.findings("failed")[-1]
        self.assertEqual(told["text"], "failed: no luck; Postfix is not running")
        run("sh", "-c", told["action"])
        self.assertTrue(is_running())

    def test_failed_apply_that_cannot_start_postfix_again_does_not_say_that_all_is_as_before(self):
        before = postconf("-n")
        self.postfix_does("start", "echo 'no luck' >&2; exit 1")
        outcome = self.assertStatus(2, ctl("apply", "--reload", "--json"))
        self.assertEqual(postconf("-n"), before)
        self.assertEqual(outcome.findings("failed")[-1]["text"],
                         "the files are as they were before, but Postfix is not running")
        self.postfix_does("start", ":")
        run("sh", "-c", outcome.findings("failed")[-1]["action"])
        self.assertTrue(is_running())

    def test_killed_rollback_is_finished_with_the_postfix_that_it_had_found_running(self):
        run("postfix", "stop")
        self.assertStatus(0, ctl("apply"))
        run("postfix", "start")
        self.postfix_does("start", f"[ -e {MOMENT} ] || {{ touch {MOMENT}; sleep 60; }}")
        process = start("rollback", "--reload")
        wait_until(MOMENT.exists, "the start")
        kill_group(process)
        self.assertFalse(is_running())
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertTrue(is_running())


class KilledTest(AroundARunTest):
    def killed_apply(self):
        self.addCleanup(remove, MOMENT)
        """The state before it."""
        self.replace_program(TOOL, f"#!/bin/sh\n$REAL; touch {MOMENT}; exec sleep 60\n")
        before = tree()
        process = start("apply")
        wait_until(MOMENT.exists, "the end of the run")
        kill_group(process)
        self.assertTrue(MARKER.exists())
        return before

    def test_what_was_changed_after_the_kill_is_kept_when_a_rollback_finishes_it(self):
        before = self.killed_apply()
        run("postconf", "-e", "relayhost=[later.example]")
        settle(MAIN_CF)
        write(TABLES / "of-somebody", "later\n")
        outcome = self.assertStatus(0, ctl("rollback", "--json"))
        self.assertSame(before, "after rollback")
        kept = stamps()[-1]
        self.assertIn(f"what was there is backup {kept}", outcome.findings("done")[-1]["text"])
        self.assertStatus(0, ctl("rollback", kept, "--force"))
        self.assertEqual(postconf("-h", "relayhost"), "[later.example]\n")
        self.assertEqual((TABLES / "of-somebody").read_text(), "later\n")

    def test_what_cannot_be_backed_up_is_no_end_of_the_way(self):
        before = self.killed_apply()
        with open(TABLES / "of-holes", "wb") as holes:
            holes.truncate(1 << 40)
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("what there is now cannot be backed up", outcome.findings("failed")[-1]["text"])
        self.assertEqual(outcome.findings("failed")[-1]["action"],
                         "remove the cause, or torva-postfixctl rollback --force, which keeps no copy")
        self.assertStatus(0, ctl("rollback", "--force"))
        self.assertSame(before, "after rollback")

    def test_way_out_is_told_when_the_backup_is_damaged(self):
        self.assertStatus(0, ctl("apply"))
        whole = stamps()[0]
        self.killed_apply()
        write(BACKUPS / stamps()[-1] / "sums", "nothing\n", 0o600)
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("rollback STAMP, with one that torva-postfixctl backups calls whole",
                      outcome.findings("failed")[-1]["action"])
        self.assertIn(f"rm {MARKER}", outcome.findings("failed")[-1]["action"])
        self.assertStatus(0, ctl("rollback", whole))
        self.assertFalse(MARKER.exists())

    def test_earlier_run_that_goes_on_is_waited_for_and_named(self):
        Path("/run/lock/torva-postfix").mkdir(mode=0o700)
        for verb in ("apply", "rollback"):
            with open("/run/lock/torva-postfix/run", "w") as held:
                fcntl.flock(held, fcntl.LOCK_EX)
                process = subprocess.Popen([ctlworld.CTL, verb], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                           stderr=subprocess.PIPE, text=True)
                # On a busy machine there may be others before it.
                self.assertIn("torva-postfixctl: waiting for what an earlier run has started\n",
                              iter(process.stderr.readline, ""))
            process.communicate()
            self.assertEqual(process.returncode, 0, verb)


class EditsTest(AroundARunTest):
    def test_second_rollback_after_edits_lists_them_and_stops(self):
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("rollback"))
        self.assertStatus(0, ctl("rollback"))
        run("postconf", "-e", "relayhost=[mine.example]")
        now = tree()
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertEqual([(o["change"], o["name"]) for o in outcome.objects() if "change" in o],
                         [("setting", "relayhost"), ("file", str(MAIN_CF))])
        self.assertIn("2 changes since the last rollback would be lost", outcome.findings("failed")[-1]["text"])
        self.assertSame(now, "nothing was done")
        self.assertStatus(0, ctl("rollback", "--force"))
        self.assertEqual(postconf("-h", "relayhost"), "\n")


    def test_edits_are_listed_after_a_rollback_whose_reload_failed(self):
        run("postfix", "start")
        self.addCleanup(run, "/usr/sbin/postfix.real", "stop", check=False)
        self.assertStatus(0, ctl("apply", "--reload"))
        program("/usr/sbin/postfix", "#!/bin/sh\ncase \"$*\" in reload | stop) exit 1 ;; esac\n"
                "exec /usr/sbin/postfix.real \"$@\"\n")
        self.assertStatus(1, ctl("rollback", "--reload"))
        self.assertEditStops()

    def test_edits_are_listed_after_an_apply_that_failed_while_somebody_else_was_at_work(self):
        self.replace_program(TOOL, "#!/bin/sh\n$REAL\npostconf -e 'relayhost = [mine.example]'\nexit 1\n")
        self.assertStatus(1, ctl("apply"))
        self.assertEqual(len(stamps()), 2)
        self.assertEditStops()

    def test_edits_are_listed_when_the_newest_backup_is_damaged(self):
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("apply"))
        write(BACKUPS / stamps()[-1] / "sums", "nothing\n", 0o600)
        self.assertEditStops()

    def assertEditStops(self):
        run("postconf", "-e", "smtpd_banner=mine")
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("smtpd_banner", [o["name"] for o in outcome.objects() if "change" in o])
        self.assertEqual(postconf("-h", "smtpd_banner"), "mine\n")


class HangUpTest(AroundARunTest):
    def test_verbs_under_nohup_go_on(self):
        self.addCleanup(remove, MOMENT)
        self.replace_program(TOOL, f"#!/bin/sh\n$REAL\ntouch {MOMENT}; sleep 0.3\n")
        process = subprocess.Popen(["nohup", CTL, "apply"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, start_new_session=True)
        wait_until(MOMENT.exists, "the end of the run")
        os.killpg(process.pid, signal.SIGHUP)
        self.assertEqual(process.wait(), 0)


class TemporaryFilesTest(QuietCheckTest):
    def test_interrupted_verbs_that_only_tell_leave_none(self):
        self.assertStatus(0, ctl("apply"))
        self.replace_program("/usr/sbin/postconf", f"#!/bin/sh\ntouch {MOMENT}; exec sleep 60\n")
        self.addCleanup(remove, MOMENT)
        for verb in ("check", "diff", "preview"):
            for number in (signal.SIGINT, signal.SIGTERM):
                remove(MOMENT)
                process = start(verb)
                wait_until(MOMENT.exists, f"postconf for {verb}")
                os.killpg(process.pid, number)
                self.assertEqual(process.wait(), -number, verb)
                self.assertEqual(ctlworld.scratch_files(), [], verb)

    def test_directory_for_them_that_cannot_be_used_is_not_needed(self):
        self.assertStatus(0, ctl("check", argv=("env", "TMPDIR=/no/such")))


if __name__ == "__main__":
    ctlworld.main()
