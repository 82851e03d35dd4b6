"""Only one apply or rollback works at a time, and nobody else can hold it up."""

import fcntl
import os
import shutil
from pathlib import Path

import ctlworld
from ctlworld import BACKUPS, MARKER, TOOL, AroundARunTest, ctl, postconf, remove, start, tree, wait_until

LOCK = Path("/run/lock/torva-postfix/lock")


class LockTest(AroundARunTest):
    def wait_in_the_run(self):
        """A run waits at its beginning until the file that is returned is there."""
        go_on = Path("/run/go-on")
        self.addCleanup(remove, go_on)
        self.replace_program(TOOL, f"#!/bin/sh\nuntil [ -e {go_on} ]; do sleep 0.05; done\nexec $REAL\n")
        return go_on

    def test_second_apply_says_who_is_at_work(self):
        go_on = self.wait_in_the_run()
        first = start("apply")
        wait_until(MARKER.exists, "the first apply")
        for verb in ("apply", "check"):
            found = [f for f in ctl(verb, "--json").objects() if f["subject"] == "lock"]
            self.assertRegex(found[-1]["text"], rf"process {first.pid}, since \d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d, is at work")
            self.assertEqual(found[-1]["action"], "wait for its end")
        go_on.touch()
        self.assertEqual(first.wait(), 0)
        self.assertIn("torva_virtual", postconf("-h", "virtual_transport"))
        self.assertEqual([f for f in ctl("check", "--json").objects() if f["subject"] == "lock"], [])

    def test_only_one_of_several_applies_works_at_a_time(self):
        go_on = self.wait_in_the_run()
        processes = [start("apply") for _ in range(3)]
        wait_until(lambda: sum(p.poll() is not None for p in processes) == 2, "the end of two")
        go_on.touch()
        self.assertEqual(sorted(p.wait() for p in processes), [0, 1, 1])

    def test_refused_apply_ends_with_status_1_and_changes_nothing(self):
        LOCK.parent.mkdir(parents=True)
        with open(LOCK, "w") as held:
            held.write("process 4711, since yesterday,\n")
            held.flush()
            fcntl.flock(held, fcntl.LOCK_EX)
            before = tree()
            outcome = self.assertStatus(1, ctl("apply", "--json"))
            self.assertIn("process 4711, since yesterday, is at work", outcome.findings("failed")[0]["text"])
            self.assertSame(before, "refused")
            self.assertFalse(BACKUPS.exists())

    def test_lock_directory_of_somebody_else_is_refused(self):
        directory = LOCK.parent
        hostile = {
            "made by somebody else": lambda: (directory.mkdir(0o700), shutil.chown(directory, "nobody")),
            "writable by others": lambda: (directory.mkdir(), directory.chmod(0o1777)),
            "writable by its group": lambda: (directory.mkdir(), directory.chmod(0o770)),
            "a link": lambda: directory.symlink_to("/run/tmp"),
            "a dangling link": lambda: directory.symlink_to("/run/missing"),
            "a file": directory.touch,
        }
        for what, make in hostile.items():
            with self.subTest(what):
                make()
                before = tree()
                outcome = self.assertStatus(1, ctl("apply"))
                self.assertIn("is not root's alone", outcome.err)
                self.assertSame(before, what)
                self.assertFalse(Path("/run/missing").exists())
                remove(directory)

    def test_what_lies_in_a_refused_lock_directory_is_not_opened(self):
        LOCK.parent.mkdir()
        shutil.chown(LOCK.parent, "nobody")
        os.mkfifo(LOCK)
        self.assertNotIn("is at work", ctl("check").err)

    def test_lock_directory_is_closed_to_others(self):
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(LOCK.parent.stat().st_mode & 0o7777, 0o700)
        LOCK.parent.chmod(0o755)
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(LOCK.parent.stat().st_mode & 0o7777, 0o700)


if __name__ == "__main__":
    ctlworld.main()
