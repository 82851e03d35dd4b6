"""What happens between an apply and its rollback: edits, further applies, records of the
panel."""

import os
from pathlib import Path

import ctlworld
import pairs
from ctlworld import (BACKUPS, MAIN_CF, MARKER, MASTER_CF, TABLES, TOOL, AroundARunTest, CtlTest, QuietCheckTest, ctl,
                      kill_group, name_hashed_aliases, postconf, program, remove, run, stamps, start, tree,
                      wait_until, write)


def records(table):
    said = run("postmap", "-s", f"hash:{TABLES}/{table}", check=False)
    return "".join(line for line in said.splitlines(True) if not line.startswith("postmap: warning: "))


def warnings_of(outcome):
    """Those about backups."""
    return [finding["text"] for finding in outcome.findings("warning") if finding["subject"] == "backup"]


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
    def test_edit_during_an_apply_is_told_because_rollback_takes_it_back(self):
        self.replace_program(TOOL, "#!/bin/sh\n$REAL || exit\npostconf -e 'relayhost = [mine.example]'\n")
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        told = [f["text"] for f in outcome.findings("warning") if f["subject"] == "backup"]
        self.assertEqual(told, ["somebody else changed relayhost during this apply; a rollback takes that back, too"])

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

    def test_index_is_compared_by_its_records_its_access_and_its_presence(self):
        self.assertStatus(0, ctl("apply"))
        run("postmap", f"hash:{TABLES}/virtual_domains")  # the same records
        self.assertEqual(self.assertStatus(0, ctl("diff")).out, "")
        (TABLES / "vmailbox.db").chmod(0o600)
        (TABLES / "transport.db").unlink()
        found = self.assertStatus(1, ctl("diff", "--json")).objects()
        self.assertEqual([o["name"] for o in found], [f"{TABLES}/transport.db", f"{TABLES}/vmailbox.db"])
        self.assertStatus(1, ctl("rollback"))

    def test_newaliases_is_no_edit(self):
        name_hashed_aliases()
        write("/etc/aliases", "root: one\n")
        self.assertStatus(0, ctl("apply"))
        left = Path("/etc/aliases.db").read_bytes()
        run("newaliases")
        self.assertNotEqual(left, Path("/etc/aliases.db").read_bytes())
        self.assertEqual(self.assertStatus(0, ctl("diff")).out, "")
        self.assertStatus(0, ctl("rollback"))

    def test_file_that_looks_the_same_is_listed_with_what_differs(self):
        write("/etc/aliases", "root: one\n")
        self.assertStatus(0, ctl("apply"))
        write("/etc/aliases", "root: two\n")
        os.setxattr(MASTER_CF, "user.note", b"edited")
        found = {o["name"]: o["after"] for o in self.assertStatus(1, ctl("diff", "--json")).objects()}
        self.assertEqual(found, {"/etc/aliases": "0644 0:0, 10 bytes, other contents",
                                 str(MASTER_CF): f"0644 0:0, {MASTER_CF.stat().st_size} bytes, other attributes"})

    def test_host_that_cannot_be_compared_is_rolled_back_by_force(self):
        before = tree()
        for break_it in (MAIN_CF.unlink, lambda: write(MAIN_CF, "no setting\n")):
            self.assertStatus(0, ctl("apply"))
            break_it()
            self.assertIn("torva-postfixctl rollback --force", self.assertStatus(2, ctl("diff")).out)
            outcome = self.assertStatus(1, ctl("rollback", "--json"))
            self.assertIn("; nothing was done", outcome.findings("failed")[0]["text"])
            self.assertEqual(outcome.findings("failed")[0]["action"], "torva-postfixctl rollback --force")
            self.assertStatus(0, ctl("rollback", "--force"))
            self.assertSame(before, "after rollback")

    def test_diff_compares_with_the_apply_even_after_a_rollback(self):
        self.assertStatus(0, ctl("apply"))
        self.assertStatus(0, ctl("rollback"))
        outcome = self.assertStatus(1, ctl("diff", "--json"))
        self.assertIn("virtual_transport", [o["name"] for o in outcome.objects()])
        self.assertEqual(self.assertStatus(0, ctl("diff", stamps()[-1])).out, "")

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

    def test_directory_of_another_program_in_the_queue_stays(self):
        own, queue = Path("/var/spool/postfix/opendkim"), Path("/var/spool/postfix/corrupt")
        self.addCleanup(remove, own)
        queue.rmdir() if queue.is_dir() else None
        before = tree()
        self.assertStatus(0, ctl("apply"))
        queue.mkdir()
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "empty directories of Postfix are gone")
        self.assertStatus(0, ctl("apply"))
        own.mkdir(0o750)
        self.assertStatus(0, ctl("rollback"))
        self.assertTrue(own.is_dir())
        own.rmdir()
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


class FailedApplyTest(AroundARunTest):
    """Somebody else works on the host during an apply that fails."""

    def setUp(self):
        super().setUp()
        pairs.lay_out_tables()
        write(TABLES / "customer_transport.cidr", "192.0.2.0/24 old:\n")

    def assertKept(self, work, name, kept):
        """The work is taken back, but not lost."""
        self.replace_program(TOOL, f"#!/bin/sh\n$REAL\n{work}\nexit 1\n")
        before = tree()
        outcome = self.assertStatus(1, ctl("apply", "--json"))
        told = " ".join(warnings_of(outcome))
        self.assertIn(name, told)
        self.assertSame(before, "taken back")
        self.assertEqual(len(stamps()), 2, told)
        self.assertIn(f"what was there is backup {stamps()[1]}", told)
        kept(run("tar", "-xOf", str(BACKUPS / stamps()[1] / "files.tar"), check=False))
        return stamps()[1]

    def test_new_file_of_the_panel(self):
        self.assertKept(f"echo /x/ REJECT >{TABLES}/no_relay.re", f"somebody else changed {TABLES}/no_relay.re",
                        lambda files: self.assertIn("/x/ REJECT\n", files))

    def test_file_whose_name_contains_that_of_a_table(self):
        self.assertKept(f"echo 203.0.113.0/24 new: >>{TABLES}/customer_transport.cidr", "customer_transport.cidr",
                        lambda files: self.assertIn("203.0.113.0/24 new:\n", files))

    def test_new_record(self):
        stamp = self.assertKept(f"echo a@b.example c | postmap -i hash:{TABLES}/poplock", "poplock: a@b.example",
                                lambda files: None)
        self.assertStatus(0, ctl("rollback", stamp))
        self.assertEqual(records("poplock"), "a@b.example\tc\n")

    def test_comment_in_main_cf(self):
        self.assertKept(f"sed -i '1i # call Bob' {MAIN_CF}", f"somebody else changed {MAIN_CF}",
                        lambda files: self.assertIn("# call Bob\n", files))

    def test_comment_in_master_cf(self):
        self.assertKept(f"echo '# call Bob' >>{MASTER_CF}", f"somebody else changed {MASTER_CF}",
                        lambda files: self.assertIn("# call Bob\n", files))

    def test_main_cf_that_postfix_does_not_read_any_more(self):
        self.assertKept(f"printf 'relayhost = [smart.example]\\nno setting\\n' >>{MAIN_CF}",
                        "somebody else may have changed something meanwhile, which cannot be told: ",
                        lambda files: self.assertIn("relayhost = [smart.example]\nno setting\n", files))

    def test_what_cannot_be_backed_up_is_told(self):
        self.replace_program(TOOL, f"#!/bin/sh\n$REAL\ntruncate -s 2G {TABLES}/holes\nexit 1\n")
        before = tree()
        outcome = self.assertStatus(1, ctl("apply", "--json"))
        self.assertRegex(" ".join(warnings_of(outcome)),
                         "somebody else may have changed something meanwhile, which cannot be told: read .*/holes: "
                         "File too large; what was there could not be backed up: read .*/holes: File too large")
        self.assertSame(before, "taken back")

    def test_nobody_else(self):
        self.replace_program(TOOL, "#!/bin/sh\n$REAL\nexit 1\n")
        for name in ("main.cf", "master.cf"):
            write(ctlworld.POSTFIX / name, (ctlworld.POSTFIX / name).read_text() + "# the last line\n")
        before = tree()
        self.assertEqual(warnings_of(self.assertStatus(1, ctl("apply", "--json"))), [])
        self.assertSame(before, "taken back")
        self.assertEqual(stamps(), [])


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


if __name__ == "__main__":
    ctlworld.main()
