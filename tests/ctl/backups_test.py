"""Backups: of several instances of Postfix, pruned, damaged, of other versions and clocks."""

import os
import shutil
from pathlib import Path

import ctlworld
from ctlworld import (BACKUPS, MAIN_CF, MARKER, MASTER_CF, AroundARunTest, QuietCheckTest, ctl, postconf, remove, run,
                      settle, stamps, tree, write)


class InstancesTest(QuietCheckTest):
    """Two instances of Postfix on one host: each has its own applies."""

    OTHER = ("env", "MAIL_CONFIG=/etc/postfix-out")

    def setUp(self):
        super().setUp()
        remove("/etc/postfix-out")
        self.addCleanup(remove, "/etc/postfix-out")
        run("postconf", "-e", "alternate_config_directories = /etc/postfix-out")
        settle(MAIN_CF)
        run("cp", "-a", "/etc/postfix", "/etc/postfix-out")
        write("/etc/postfix-out/aliases", "postmaster: root\n")
        run("postconf", "-c", "/etc/postfix-out", "-e", "alias_maps = hash:$config_directory/aliases",
            "alias_database = $alias_maps")
        settle("/etc/postfix-out/main.cf")
        self.before = tree()
        self.assertStatus(0, ctl("apply", argv=self.OTHER))

    def newest_stamp(self):
        return ctl("backups", "--json").objects()[-1]["stamp"]

    def test_apply_to_one_is_none_to_the_other(self):
        now = tree()
        self.assertStatus(2, ctl("diff"))
        for force in ((), ("--force",)):
            self.assertIn("no backup of an apply", self.assertStatus(1, ctl("rollback", *force)).out)
        self.assertSame(now, "after rollback of the other")

    def test_each_is_compared_and_rolled_back_by_its_own(self):
        self.assertStatus(0, ctl("apply"))
        for instance in ((), self.OTHER):
            self.assertEqual(self.assertStatus(0, ctl("diff", argv=instance)).out, "")
        self.assertStatus(0, ctl("backups", "--prune", "0"))
        self.assertEqual({o["configuration"] for o in ctl("backups", "--json").objects()},
                         {"/etc/postfix", "/etc/postfix-out"})
        for instance in ((), self.OTHER):
            self.assertStatus(0, ctl("rollback", argv=instance))
        self.assertSame(self.before, "after both rollbacks")

    def test_backup_of_the_other_is_refused_with_the_command(self):
        now = tree()
        stamp = self.newest_stamp()
        for verb, status in ("diff", 2), ("rollback", 1):
            outcome = self.assertStatus(status, ctl(verb, stamp, "--json"))
            self.assertEqual(outcome.findings("failed")[-1]["action"],
                             f"MAIL_CONFIG=/etc/postfix-out torva-postfixctl {verb} {stamp}")
        self.assertSame(now, "nothing was done")

    def test_tables_that_the_other_uses_are_not_removed(self):
        self.assertStatus(0, ctl("rollback", argv=self.OTHER))
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("apply", argv=self.OTHER))
        now = tree()
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("would be removed, which /etc/postfix-out uses", outcome.findings("failed")[-1]["text"])
        self.assertSame(now, "nothing was done")
        run("sh", "-c", outcome.findings("failed")[-1]["action"].split(", then")[0])
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after both rollbacks")

    def test_tables_that_an_instance_uses_which_no_apply_has_configured_are_not_removed(self):
        self.assertStatus(0, ctl("rollback", argv=self.OTHER))
        shutil.rmtree(BACKUPS)
        self.assertStatus(0, ctl("apply"))
        run("cp", "-a", "/etc/postfix/main.cf", "/etc/postfix/master.cf", "/etc/postfix-out/")
        self.assertIn("which /etc/postfix-out uses", self.assertStatus(1, ctl("rollback", "--json")).out)

    def test_advice_names_the_instance(self):
        outcome = self.assertStatus(0, ctl("apply", "--json", argv=self.OTHER))
        self.assertEqual([f["action"] for f in outcome.findings("done") if f["subject"] in ("backup", "apply")],
                         ["to take the run back: MAIL_CONFIG=/etc/postfix-out torva-postfixctl rollback",
                          "MAIL_CONFIG=/etc/postfix-out postfix start"])

    def test_relative_name_of_the_instance(self):
        outcome = self.assertStatus(0, ctl("diff", "--json", argv=("env", "-C", "/etc", "MAIL_CONFIG=postfix-out")))
        self.assertEqual(outcome.out, "")

    def test_killed_apply_to_one_is_finished_by_a_rollback_of_that(self):
        stamp = self.newest_stamp()
        MARKER.write_text(f"apply {stamp}\n")
        now = tree()
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        command = outcome.findings("failed")[-1]["action"]
        self.assertEqual(command, f"MAIL_CONFIG=/etc/postfix-out torva-postfixctl rollback {stamp}")
        self.assertSame(now, "nothing was done")
        run("sh", "-c", command)
        self.assertSame(self.before, "after rollback")
        self.assertFalse(MARKER.exists())


class BackupsTest(AroundARunTest):
    def test_prune_keeps_the_newest_and_the_way_back(self):
        for _ in range(3):
            self.assertStatus(0, ctl("apply"))
        first, second, third = stamps()
        self.assertStatus(0, ctl("backups", "--prune", "1"))
        self.assertEqual(stamps(), [first, third])
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(MASTER_CF.read_bytes(), (ctlworld.KEPT / "postfix/master.cf").read_bytes())

    def test_those_of_a_clock_that_was_ahead_are_not_the_newest(self):
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("rollback"))
        for number, stamp in enumerate(stamps()):
            os.rename(BACKUPS / stamp, BACKUPS / f"20991231T23595{8 + number}Z")
        run("postconf", "-e", "relayhost = [relay.example.net]")
        settle(MAIN_CF)
        before = tree()
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(stamps()[-1], "21000101T000000Z")
        self.assertEqual(self.assertStatus(0, ctl("diff")).out, "")
        run("postconf", "-e", "relayhost = [other.example.net]")
        self.assertIn("[other.example.net]", self.assertStatus(1, ctl("diff")).out)
        self.assertStatus(1, ctl("rollback"))
        self.assertStatus(0, ctl("rollback", "--force"))
        self.assertSame(before, "after rollback")
        self.assertStatus(0, ctl("backups", "--prune", "1"))
        self.assertEqual(stamps(), ["21000101T000000Z", "21000101T000001Z"])

    def test_damaged_one_is_told_and_never_the_default(self):
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("apply"))
        first, second = stamps()
        with open(BACKUPS / first / "files.tar", "r+b") as archive:
            archive.seek(600)
            archive.write(b"\x01")
        self.assertEqual([o["state"] for o in ctl("backups", "--json").objects()], ["damaged", "whole"])
        self.assertStatus(0, ctl("rollback"))
        self.assertIn("torva_virtual", postconf("-h", "virtual_transport"), "the state before the second")

    def test_shortage_of_descriptors_makes_no_backup_a_damaged_one(self):
        """An older one would be restored in its place."""
        self.assertStatus(0, ctl("apply"))
        log = Path("/run/opened")
        traced = ("strace", "-qq", "-o", str(log), "-e", "trace=openat")
        self.assertStatus(0, ctl("backups", argv=traced))
        opened = log.read_text().splitlines()
        first = next(at for at, line in enumerate(opened) if stamps()[0] in line)
        of_backup = [at for at in range(first, len(opened)) if "AT_FDCWD" not in opened[at]]
        self.assertGreater(len(of_backup), 4)
        for at in of_backup:
            outcome = ctl("backups", "--json", argv=(*traced, "-e", f"inject=openat:error=ENFILE:when={at + 1}"))
            self.assertStatus(1, outcome)
            self.assertIn("Too many open files in system", outcome.err, opened[at])
            self.assertNotIn("damaged", outcome.out, opened[at])

    def test_file_or_link_with_the_name_of_a_backup_hides_no_other(self):
        before = tree()
        self.assertStatus(0, ctl("apply"))
        (BACKUPS / "20300101T000000Z").write_text("notes\n")
        (BACKUPS / "20300101T000001Z").symlink_to("/srv/moved")
        os.mkfifo(BACKUPS / "20300101T000002Z")
        self.assertEqual([o["state"] for o in self.assertStatus(0, ctl("backups", "--json")).objects()],
                         ["whole", "damaged", "damaged", "damaged"])
        self.assertStatus(0, ctl("diff"))
        self.assertStatus(1, ctl("rollback", "20300101T000001Z"))
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")

    def test_one_of_an_earlier_version_is_listed_and_refused(self):
        old = BACKUPS / "20200101T000000Z"
        (old / "tree").mkdir(parents=True)
        BACKUPS.chmod(0o700)
        (old / "reason").write_text("before apply\n")
        self.assertEqual([(o["state"], o["reason"]) for o in ctl("backups", "--json").objects()],
                         [("earlier version", "before apply")])
        outcome = self.assertStatus(1, ctl("rollback", old.name, "--json"))
        self.assertIn("made by an earlier version; nothing was done", outcome.findings("failed")[0]["text"])

    def test_tar_reads_it(self):
        self.assertStatus(0, ctl("apply"))
        listing = run("tar", "-tvf", str(BACKUPS / stamps()[0] / "files.tar"))
        self.assertIn("etc/postfix/main.cf", listing)
        run("sh", "-c", f"cd {BACKUPS}/{stamps()[0]} && sha256sum -c sums")

    def test_attributes_and_nanoseconds_come_back(self):
        os.setxattr(MAIN_CF, "user.note", b"kept \xff")
        os.utime(MAIN_CF, ns=(1_600_000_000_123_456_789, 1_600_000_000_123_456_789))
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(os.getxattr(MAIN_CF, "user.note"), b"kept \xff")
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(os.getxattr(MAIN_CF, "user.note"), b"kept \xff")
        self.assertEqual(MAIN_CF.stat().st_mtime_ns, 1_600_000_000_123_456_789)


if __name__ == "__main__":
    ctlworld.main()
