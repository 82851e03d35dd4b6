"""A running Postfix uses what apply and rollback change, seen from outside: who listens
on port 25, and whether local mail is picked up, once."""

import re
import socket
import subprocess
import time
from pathlib import Path

import ctlworld
from ctlworld import (MAIN_CF, MARKER, TOOL, CtlTest, ctl, kill_group, postconf, program, remove, run, start, tree,
                      wait_until, write)

LOG = Path("/var/log/postfix-test.log")
ADDRESS = "192.0.2.10"  # of the sandbox


def listens():
    try:
        socket.create_connection((ADDRESS, 25), timeout=10).close()
        return True
    except ConnectionRefusedError:
        return False


def send_to_root(subject):
    subprocess.run(["sendmail", "-i", "root"], input=f"Subject: {subject}\n\n", text=True, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def picked_up():
    return len(re.findall(r"postfix/pickup\[\d+\]: \w+: uid=", LOG.read_text()))


def maildrop():
    return list(Path("/var/spool/postfix/maildrop").iterdir())


class ActivationTest(CtlTest):
    def setUp(self):
        super().setUp()
        remove(LOG)
        text = re.sub(r"(?m)^inet_interfaces.*\n", "", MAIN_CF.read_text())
        write(MAIN_CF, text + f"inet_interfaces = loopback-only\nmaillog_file = {LOG}\n")
        run("postfix", "start")
        self.addCleanup(run, "postfix", "stop", check=False)
        for path in maildrop():
            remove(path)

    def assertPickedUp(self, what):
        count = picked_up()
        send_to_root(what)
        wait_until(lambda: picked_up() > count, what)

    def test_after_apply_and_after_rollback(self):
        self.assertFalse(listens())
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertTrue(listens())
        self.assertPickedUp("after apply")
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertFalse(listens())
        self.assertPickedUp("after rollback")

    def test_after_an_apply_that_failed_when_it_had_activated(self):
        real = TOOL.with_suffix(".real")
        TOOL.rename(real)
        self.addCleanup(remove, real)
        # Postfix does not start with this, and "postfix check" has nothing against it.
        program(TOOL, f"#!/bin/sh\n{real} || exit\n"
                "postconf -M 'no-such-port/inet=no-such-port inet n - y - - smtpd'\n")
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertEqual([f["subject"] for f in outcome.findings("failed")], ["reload", "apply"])
        self.assertFalse(listens())
        run("postfix", "status")  # fails unless it is running
        self.assertPickedUp("after a failed apply")

    def test_after_an_apply_that_was_ended_when_it_had_activated(self):
        real = Path("/usr/sbin/postfix.real")
        Path("/usr/sbin/postfix").rename(real)
        self.addCleanup(real.rename, "/usr/sbin/postfix")
        self.addCleanup(remove, "/run/started")
        program("/usr/sbin/postfix", f"#!/bin/sh\n{real} \"$@\"; status=$?\n"
                "test \"$1\" != start || { touch /run/started; sleep 1; }\nexit $status\n")
        process = start("apply", "--reload")
        wait_until(lambda: Path("/run/started").exists(), "the start")
        process.terminate()
        self.assertEqual(process.wait(), 1)
        self.assertFalse(listens())
        self.assertPickedUp("after an apply that was ended")

    def test_without_reload_the_one_command_is_printed(self):
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], "postfix stop && postfix start")
        run("sh", "-c", outcome.findings("done")[-1]["action"])
        self.assertTrue(listens())
        self.assertPickedUp("after the printed command")
        outcome = self.assertStatus(0, ctl("rollback", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], "postfix stop && postfix start")
        run("postfix", "stop")
        self.assertStatus(0, ctl("apply"))
        self.assertIn("-> postfix start", self.assertStatus(0, ctl("rollback")).out)

    def test_apply_with_reload_after_one_without(self):
        self.assertStatus(0, ctl("apply"))
        self.assertFalse(listens())
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], "postfix stop && postfix start")
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertTrue(listens())
        self.assertPickedUp("after the last apply")
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], "postfix reload")

    def test_full_lock_directory_is_no_reason_to_take_back_what_has_succeeded(self):
        locks = Path("/run/lock/torva-postfix")
        locks.mkdir()
        run("mount", "-t", "tmpfs", "-o", "size=4096,mode=700", "full", str(locks))
        self.addCleanup(run, "umount", str(locks))
        (locks / "filler").write_bytes(bytes(4096))
        for verb in ("apply", "rollback"):
            outcome = self.assertStatus(0, ctl(verb, "--json"))
            told = [f for f in outcome.findings("warning") if f["subject"] == "reload"]
            self.assertEqual([f["action"] for f in told], ["postfix stop && postfix start"], outcome)
            self.assertIn("No space left", told[0]["text"])
            self.assertFalse(MARKER.exists())
        self.assertEqual(sorted(path.name for path in locks.iterdir()), ["filler", "lock", "run"])

    def test_apply_killed_while_postfix_was_stopped(self):
        before = postconf("-n")
        real = Path("/usr/sbin/postfix.real")
        Path("/usr/sbin/postfix").rename(real)
        self.addCleanup(real.rename, "/usr/sbin/postfix")
        program("/usr/sbin/postfix", f"#!/bin/sh\n{real} \"$@\" || exit\n"
                "test \"$1\" != stop || exec sh -c 'touch /run/stopped; exec sleep 60'\n")
        self.addCleanup(remove, "/run/stopped")
        process = start("apply", "--reload")
        wait_until(lambda: Path("/run/stopped").exists(), "the stop")
        kill_group(process)
        self.assertTrue(MARKER.exists())
        program("/usr/sbin/postfix", f"#!/bin/sh\nexec {real} \"$@\"\n")
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertEqual(before, postconf("-n"))
        self.assertPickedUp("after rollback")

    def killed_at(self, verb, moment):
        """Kills a verb, and all that it started, before or after its "postfix stop"."""
        real = Path("/usr/sbin/postfix.real")
        Path("/usr/sbin/postfix").rename(real)
        self.addCleanup(remove, "/run/stopping")
        wait = "touch /run/stopping; exec sleep 60"
        before, after = (wait, "") if moment == "before" else ("", wait)
        program("/usr/sbin/postfix", f"#!/bin/sh\ntest \"$1\" = stop || exec {real} \"$@\"\n{before}\n"
                f"{real} \"$@\"\n{after}\n")
        process = start(verb, "--reload")
        wait_until(lambda: Path("/run/stopping").exists(), f"the stop by {verb}")
        kill_group(process)
        real.rename("/usr/sbin/postfix")
        remove("/run/stopping")

    def test_rollback_killed_before_and_after_it_stopped_postfix_is_finished_by_the_next(self):
        for moment in ("before", "after"):
            self.assertStatus(0, ctl("apply", "--reload"))
            before = ctl("backups", "--json").objects()[-1]["stamp"]
            self.killed_at("rollback", moment)
            self.assertIn("unfinished", ctl("check").out, moment)
            outcome = self.assertStatus(0, ctl("rollback", "--reload", "--json"))
            self.assertIn(f"as it was at {before}", outcome.findings("done")[-1]["text"])
            self.assertFalse(listens(), moment)
            self.assertPickedUp(f"after a rollback that was killed {moment} the stop")
            self.assertFalse(MARKER.exists())

    def test_failed_apply_killed_while_it_takes_its_activation_back_is_finished_by_rollback(self):
        self.replace_program(TOOL, "#!/bin/sh\n$REAL || exit\n"
                             "postconf -M 'no-such-port/inet=no-such-port inet n - y - - smtpd'\n")
        self.replace_program("/usr/sbin/postfix",
                             "#!/bin/sh\ntest \"$1\" = start || exec $REAL \"$@\"\n"
                             "! test -e /run/failed || { touch /run/again; exec sleep 60; }\n"
                             "touch /run/failed; exec $REAL \"$@\"\n")
        for path in ("/run/failed", "/run/again"):
            self.addCleanup(remove, path)
        before = postconf("-n")
        process = start("apply", "--reload")
        wait_until(lambda: Path("/run/again").exists(), "the second start")
        kill_group(process)
        self.assertIn("unfinished", ctl("check").out)
        remove("/run/failed")
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertEqual(before, postconf("-n"))
        self.assertPickedUp("after rollback")

    def test_mail_that_waits_at_a_start_is_picked_up_once(self):
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertIn("pickup/unix is commented out", " ".join(f["text"] for f in outcome.findings("done")))
        run("postfix", "stop")
        count = picked_up()
        for number in range(4):
            send_to_root(f"message {number}")
        self.assertEqual(len(maildrop()), 4)
        run("postfix", "start")
        wait_until(lambda: not maildrop(), "the pickup")
        time.sleep(1)  # for one that would be picked up a second time
        self.assertEqual(picked_up() - count, 4)
        self.assertNotIn("pickup/unix", ctlworld.postconf("-M"))

    def test_rollback_brings_the_other_pickup_back(self):
        run("postfix", "stop")
        before = tree()
        self.assertStatus(0, ctl("apply"))
        self.assertNotRegex(postconf("-M"), r"(?m)^pickup +unix")
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")
        self.assertRegex(postconf("-M"), r"(?m)^pickup +unix")

    def test_preview_tells_of_the_pickup(self):
        out = self.assertStatus(0, ctl("preview")).out
        self.assertIn("pickup/unix is commented out", out)
        self.assertRegex(out, r"(?m)^\+#pickup +unix")


if __name__ == "__main__":
    ctlworld.main()
