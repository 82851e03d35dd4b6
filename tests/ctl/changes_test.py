"""What happens between an apply and its rollback: edits, further applies, records of the
panel, backups that are pruned or damaged."""

import os
from pathlib import Path

import ctlworld
import pairs
from ctlworld import (BACKUPS, MAIN_CF, MARKER, MASTER_CF, TABLES, TOOL, AroundARunTest, CtlTest, QuietCheckTest, ctl,
                      kill_group, postconf, program, remove, run, start, tree, wait_until, write)


def stamps():
    return sorted(path.name for path in BACKUPS.glob("[0-9]*"))


def records(table):
    said = run("postmap", "-s", f"hash:{TABLES}/{table}", check=False)
    return "".join(line for line in said.splitlines(True) if not line.startswith("postmap: warning: "))


class ChrootFilesTest(CtlTest):
    def test_apply_leaves_the_files_of_the_chroot_as_they_are(self):
        # From Debian 13 on, Postfix's own check runs a hook that refreshes them.
        hook, script = Path("/usr/lib/postfix/configure-instance.sh"), Path("/usr/lib/postfix/sbin/post-install")
        for path in (hook, script):
            self.addCleanup(program, path, path.read_text())
        chroot = Path("/var/spool/postfix/etc")
        program(hook, f"#!/bin/sh\nmkdir -p {chroot}\necho new >{chroot}/hosts\n")
        program(script, script.read_text().replace("\n", f"\n{hook} || exit 1\n", 1))
        run("postfix", "check")
        self.assertEqual((chroot / "hosts").read_text(), "new\n")
        write(chroot / "hosts", "old\n")
        before = tree()
        self.assertStatus(0, ctl("apply"))
        self.assertEqual((chroot / "hosts").read_text(), "old\n")
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")


class EditsTest(AroundARunTest):
    def test_nothing_has_changed_since_an_apply(self):
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(self.assertStatus(0, ctl("diff")).out, "")
        os.utime(MAIN_CF)
        self.assertEqual(self.assertStatus(0, ctl("diff", stamps()[0])).out, "")

    def test_every_kind_of_edit_is_listed(self):
        self.assertStatus(0, ctl("apply"))
        run("postconf", "-e", "relayhost=[relay.example.net]")
        run("postconf", "-M", "submission/inet=submission inet n - y - - smtpd")
        write(TABLES / "virtual", "a@example.com b@example.com\n")
        run("postmap", f"hash:{TABLES}/virtual")
        (TABLES / "poplock").chmod(0o600)
        outcome = self.assertStatus(1, ctl("diff", "--json"))
        found = {(o["change"], o["name"]): (o["before"], o["after"]) for o in outcome.objects()}
        self.assertEqual(found[("setting", "relayhost")], ("", "[relay.example.net]"))
        self.assertIn(("service", "submission/inet"), found)
        self.assertEqual(found[("record", "virtual: a@example.com")], ("", "b@example.com"))
        self.assertIn(("file", f"{TABLES}/poplock"), found)
        self.assertIn("+ setting relayhost: [relay.example.net]\n", ctl("diff").out)

    def test_diff_without_an_apply_is_trouble(self):
        self.assertStatus(2, ctl("diff"))
        self.assertFalse(BACKUPS.exists())

    def test_rollback_stops_at_edits_unless_forced(self):
        before = tree()
        self.assertStatus(0, ctl("apply"))
        run("postconf", "-e", "relayhost=[relay.example.net]")
        edited = tree()
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("relayhost", [o.get("name") for o in outcome.objects()])
        self.assertIn("nothing was done", outcome.findings("failed")[0]["text"])
        self.assertSame(edited, "nothing was done")
        self.assertIn("everything is as it was", self.assertStatus(0, ctl("rollback", "--force")).out)
        self.assertSame(before, "after rollback")

    def test_backup_of_a_failed_apply_is_kept_when_somebody_else_changed_a_file(self):
        real = TOOL.with_suffix(".real")
        os.rename(TOOL, real)
        self.addCleanup(remove, real)
        program(TOOL, f"#!/bin/sh\n{real}\npostconf -e 'relayhost = [relay.example.net]'\nexit 1\n")
        before = tree()
        outcome = self.assertStatus(1, ctl("apply", "--json"))
        self.assertIn("somebody else changed relayhost", " ".join(f["text"] for f in outcome.findings("warning")))
        self.assertSame(before, "taken back")
        self.assertEqual(len(stamps()), 2)
        self.assertStatus(0, ctl("rollback", stamps()[1]))
        self.assertIn("relayhost = [relay.example.net]", postconf("-n"))


class SecondApplyTest(QuietCheckTest):
    def setUp(self):
        super().setUp()
        pairs.lay_out_tables()
        self.before = tree()

    def test_rollback_goes_to_the_state_before_the_first(self):
        for _ in range(3):
            self.assertStatus(0, ctl("apply"))
        self.assertEqual([o["configured"] for o in ctl("backups", "--json").objects()], ["no", "yes", "yes"])
        self.assertIn("configured already", ctl("backups").out)
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after rollback")

    def test_records_of_the_panel_are_put_back(self):
        preview = self.assertStatus(0, ctl("preview", "--json")).findings("done")
        self.assertIn("put back what the run dropped: 1 in virtual, 1 in virtual_domains", [f["text"] for f in preview])
        self.assertStatus(0, ctl("apply"))
        self.assertIn("a@example.com\tb@example.com\n", records("virtual"))
        self.assertIn("example.com\t1\n", records("virtual_domains"))
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after rollback")

    def test_records_of_the_run_itself_win(self):
        self.assertStatus(0, ctl("apply"))
        own = [line for line in records("virtual").splitlines() if not line.startswith("a@example.com")]
        self.assertTrue(own)
        key, value = own[0].split("\t")
        subject = f"hash:{TABLES}/virtual"
        run("sh", "-c", f"echo '{key} somebody@else.example' | postmap -r -i {subject}")
        self.assertNotIn(f"{key}\t{value}\n", records("virtual"))
        self.assertStatus(0, ctl("apply"))
        self.assertIn(f"{key}\t{value}\n", records("virtual"))

    def test_empty_tables_leaves_what_the_run_has_made(self):
        self.assertStatus(0, ctl("apply", "--empty-tables"))
        self.assertNotIn("a@example.com", records("virtual"))
        self.assertStatus(0, ctl("rollback"))
        preview = self.assertStatus(0, ctl("preview", "--empty-tables", "--json"))
        self.assertNotIn("records", [f["subject"] for f in preview.findings("done")])

    def test_apply_killed_while_it_puts_records_back(self):
        real = Path("/usr/sbin/postmap.real")
        os.rename("/usr/sbin/postmap", real)
        self.addCleanup(os.rename, real, "/usr/sbin/postmap")
        program("/usr/sbin/postmap", f"""#!/bin/sh
            case "$*" in "-r -i"*/virtual_domains) {real} "$@"; touch /run/putting; exec sleep 60 ;; esac
            exec {real} "$@"\n""")
        self.addCleanup(remove, "/run/putting")
        before = tree()
        process = start("apply")
        wait_until(lambda: os.path.exists("/run/putting"), "the putting back")
        kill_group(process)
        self.assertTrue(MARKER.exists())
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")


class BackupsTest(AroundARunTest):
    def test_prune_keeps_the_newest_and_the_way_back(self):
        before = tree()
        for _ in range(3):
            self.assertStatus(0, ctl("apply"))
        first, second, third = stamps()
        self.assertStatus(0, ctl("backups", "--prune", "1"))
        self.assertEqual(stamps(), [first, third])
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(MASTER_CF.read_bytes(), (ctlworld.KEPT / "postfix/master.cf").read_bytes())

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
