"""torva-postfixctl apply and rollback when something goes wrong."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import ctlworld
import pairs
from ctlworld import (BACKUPS, CTL, MAIN_CF, MARKER, MASTER_CF, POSTFIX, TABLES, TOOL, AroundARunTest, CtlTest, ctl,
                      kill_group, postconf, program, remove, run, stamps, start, tree, wait_until, write)


def flip(path, offset):
    """Changes one byte."""
    data = bytearray(path.read_bytes())
    data[offset] ^= 1
    path.write_bytes(data)


def replace(path, old, new):
    text = path.read_text()
    assert old in text
    path.write_text(text.replace(old, new))


class ApplyFailsTest(CtlTest):
    def setUp(self):
        super().setUp()
        pairs.no_final_newline()
        pairs.lay_out_tables()
        write(POSTFIX / "master.cf.before", "the administrator's own\n")  # looks like a scratch file of the tool
        self.before = tree()

    def assertTakenBack(self, outcome, reason):
        self.assertStatus(1, outcome)
        texts = [f"{finding['subject']}: {finding['text']}" for finding in outcome.findings("failed")]
        self.assertEqual(len(texts), 2, outcome)
        self.assertRegex(texts[0], reason)
        self.assertEqual(texts[1], "apply: everything is as it was before")
        self.assertSame(self.before, reason)
        self.assertFalse(MARKER.exists())
        self.assertEqual(ctl("backups").out, "")

    def wrap_tool(self, text):
        """A script in place of the tool, which finds the real one at $real."""
        real = TOOL.with_suffix(".real")
        os.rename(TOOL, real)
        self.addCleanup(remove, real)
        program(TOOL, f"#!/bin/bash\nreal={real}\n{text}\n")
        self.before = tree()

    def test_run_that_fails_half_way(self):
        self.wrap_tool("mv /usr/sbin/postalias /usr/sbin/kept\n$real; s=$?\nmv /usr/sbin/kept /usr/sbin/postalias; exit $s")
        self.assertTakenBack(ctl("apply", "--json"), "run: torva-postfix-setup ended with status 1")

    def test_run_that_is_killed_and_leaves_its_scratch_file(self):
        self.wrap_tool("$real; echo half >/etc/postfix/master.cf.aB3dE6; kill -KILL $$")
        self.assertTakenBack(ctl("apply", "--json"), "run: torva-postfix-setup ended with status 137")

    def test_what_somebody_else_has_put_beside_master_cf_stays(self):
        own = {f"{MASTER_CF}.{name}": mode for name, mode in
               {"backup": 0o644, "221126": 0o600, "aB3dE7": 0o640, "aB3dE8": 0o644}.items()}
        self.wrap_tool("$real\n" + "".join(f"cp {MASTER_CF} {path}; chmod {mode:o} {path}\n" for path, mode in own.items())
                       + f"touch -d '1 hour ago' {MASTER_CF}.aB3dE8; exit 1")
        self.assertStatus(1, ctl("apply"))
        self.assertEqual({path: os.stat(path).st_mode & 0o7777 for path in own}, own)
        for path in own:
            remove(path)
        self.assertSame(self.before, "taken back")

    def test_file_that_may_be_of_the_run_is_kept_in_the_backup(self):
        self.wrap_tool(f"$real; echo mine >{MASTER_CF}.Backup; exit 1")
        told = self.assertStatus(1, ctl("apply", "--json")).findings("warning")
        self.assertSame(self.before, "taken back")
        backup, = (path for path in BACKUPS.iterdir() if path.is_dir())
        self.assertIn(f"master.cf.Backup, which was new, is now set-aside.master.cf.Backup in backup {backup.name}",
                      [finding["text"] for finding in told])
        self.assertEqual((backup / "set-aside.master.cf.Backup").read_text(), "mine\n")

    def test_what_somebody_else_has_put_beside_master_cf_stays_when_an_apply_was_killed(self):
        self.wrap_tool("$real; touch /run/changed; exec sleep 60")
        remove("/run/changed")
        process = start("apply")
        wait_until(lambda: os.path.exists("/run/changed"), "the run")
        kill_group(process)
        write(f"{MASTER_CF}.broken", "mine\n")
        os.utime(f"{MASTER_CF}.broken")
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(Path(f"{MASTER_CF}.broken").read_text(), "mine\n")
        remove(f"{MASTER_CF}.broken")
        self.assertSame(self.before, "after rollback")

    def test_run_that_dies_before_a_program_that_it_started(self):
        # What it left behind would write into the files that are restored.
        self.wrap_tool("(sleep 1; postconf -e virtual_transport=late) & exit 3")
        self.assertTakenBack(ctl("apply", "--json"), "run: torva-postfix-setup ended with status 3")

    def test_run_that_loses_a_sheltered_line(self):
        self.wrap_tool("$real; sed -i /postlog/d /etc/postfix/master.cf")
        outcome = ctl("apply", "--json")
        self.assertStatus(1, outcome)
        self.assertIn("a sheltered line is gone", outcome.findings("failed")[0]["text"])
        self.assertSame(self.before, "restored")

    def test_postfix_check_that_fails(self):
        run("postfix", "check")  # makes the directory where Postfix has never been started
        run("chown", "daemon", "/var/spool/postfix/active")
        self.addCleanup(run, "chown", "postfix", "/var/spool/postfix/active")
        self.before = tree()
        self.assertTakenBack(ctl("apply", "--json"), "postfix-check: failed: .*active: Permission denied")

    def test_full_disk_before_the_backup(self):
        BACKUPS.mkdir(parents=True)
        run("mount", "-t", "tmpfs", "-o", "size=24k,mode=700", "none", BACKUPS)
        self.addCleanup(run, "umount", BACKUPS)
        outcome = ctl("apply", "--json")
        self.assertStatus(1, outcome)
        self.assertEqual([f["subject"] for f in outcome.findings("stop", "failed")], ["room", "apply"])
        self.assertSame(self.before, "nothing was changed")
        self.assertEqual(os.listdir(BACKUPS), [])

    def test_term_signal_takes_it_back(self):
        self.wrap_tool("$real; touch /run/changed; sleep 0.5")
        remove("/run/changed")
        process = subprocess.Popen([CTL, "--json", "apply"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        wait_until(lambda: os.path.exists("/run/changed"), "the run")
        process.terminate()
        out, _ = process.communicate()
        self.assertEqual(process.returncode, 1, out)
        self.assertSame(self.before, "after SIGTERM")
        self.assertFalse(MARKER.exists())

    def test_nobody_reading_is_no_reason_to_end_half_way(self):
        read, written = os.pipe()
        os.close(read)
        process = subprocess.run([CTL, "apply"], stdout=written, stderr=subprocess.DEVNULL)
        os.close(written)
        self.assertEqual(process.returncode, 0)
        self.assertIn("torva_virtual", postconf("-h", "virtual_transport"))
        self.assertFalse(MARKER.exists())

    def test_closed_standard_streams(self):
        run("bash", "-c", f"exec <&- >&- 2>&-; exec {CTL} apply")
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(self.before, "after rollback")

    def test_stop_changes_nothing(self):
        write(TABLES / "master.cf.disabled", "")
        self.before = tree()
        outcome = self.assertStatus(1, ctl("apply", "--json"))
        self.assertEqual([f["subject"] for f in outcome.findings("stop", "failed")], ["master.cf", "apply"])
        self.assertSame(self.before, "stopped")
        self.assertFalse(BACKUPS.exists())

    def test_failed_restoration_is_told_and_rollback_finishes_it(self):
        self.wrap_tool("$real; mount --bind /etc/postfix /etc/postfix; mount -o remount,bind,ro /etc/postfix; exit 1")
        outcome = ctl("apply", "--json")
        run("umount", "/etc/postfix")
        self.assertStatus(2, outcome)
        self.assertIn("could not be restored whole", outcome.findings("failed")[-1]["text"])
        self.assertTrue(MARKER.exists())
        for verb, status in (("check", 1), ("backups", 0), ("preview", 0), ("apply", 2)):
            later = ctl(verb, "--json")
            self.assertEqual(later.status if verb != "preview" else 0, status, later)
            self.assertIn("apply was killed half-way", later.findings("stop")[0]["text"], verb)
        run("sh", "-c", later.findings("stop")[0]["action"])
        self.assertEqual([f for f in ctl("check", "--json").objects() if f["subject"] == "unfinished"], [])
        self.assertSame(self.before, "after rollback")


class RollbackTest(AroundARunTest):
    def test_without_any_backup(self):
        before = tree()
        outcome = self.assertStatus(1, ctl("rollback", "--json"))
        self.assertIn("no backup of an apply", outcome.findings("failed")[0]["text"])
        self.assertSame(before, "nothing to do")

    def test_named_backup_and_the_first_of_a_row_of_applies(self):
        first = tree()
        self.assertStatus(0, ctl("apply"))
        write(MAIN_CF, MAIN_CF.read_text() + "relayhost = [relay.example.net]\n")
        second = tree()
        self.assertStatus(0, ctl("apply"))
        oldest, newest = stamps()
        self.assertStatus(0, ctl("rollback", newest))
        self.assertSame(second, "named")
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(first, "before the first of the row")
        self.assertStatus(0, ctl("rollback", newest))
        self.assertSame(second, "named")

    def test_rollback_can_itself_be_taken_back(self):
        self.assertStatus(0, ctl("apply"))
        write(TABLES / "virtual", "a@example.com b@example.com\n")
        write("/etc/aliases", "root: me\n")
        applied = tree()
        self.assertStatus(0, ctl("rollback", "--force"))
        objects = ctl("backups", "--json").objects()
        self.assertEqual([o["reason"] for o in objects], ["before apply", f"before rollback to {objects[0]['stamp']}"])
        self.assertStatus(0, ctl("rollback", objects[1]["stamp"]))
        self.assertSame(applied, "taken back")

    def test_backup_that_does_not_match_its_manifest_is_refused(self):
        self.assertStatus(0, ctl("apply"))
        backup = BACKUPS / stamps()[0]
        applied = tree()
        kept = Path("/run/backup")
        shutil.copytree(backup, kept, symlinks=True)
        self.addCleanup(remove, kept)
        changes = {
            "contents": lambda: flip(backup / "files.tar", 700),
            "end of the archive": lambda: os.truncate(backup / "files.tar", 1000),
            "no archive": lambda: remove(backup / "files.tar"),
            "manifest": lambda: (backup / "manifest").write_text("{}"),
            "a mode in the manifest": lambda: replace(backup / "manifest", '"100644"', '"100666"'),
            "no manifest": lambda: remove(backup / "manifest"),
            "what the apply left": lambda: (backup / "left").write_text("{}"),
            "no sums": lambda: remove(backup / "sums"),
        }
        for name, change in changes.items():
            with self.subTest(name):
                change()
                outcome = self.assertStatus(1, ctl("rollback", "--json"))
                self.assertIn("not what its manifest says; nothing was done", outcome.findings("failed")[0]["text"])
                self.assertSame(applied, name)
                remove(backup)
                run("cp", "-a", kept, backup)
        self.assertStatus(0, ctl("rollback"))

    def test_file_that_is_missing_in_the_archive_changes_nothing(self):
        self.assertStatus(0, ctl("apply"))
        applied = tree()
        backup = BACKUPS / stamps()[0]
        kept = (backup / "files.tar").read_bytes()
        changes = {
            "gone": "tar --delete -f files.tar etc/postfix/main.cf",
            "other": "tar --delete -f files.tar etc/postfix/main.cf; tar -C / -rf files.tar etc/postfix/main.cf",
            "twice": "tar -C / -rf files.tar etc/postfix/main.cf",
            "cut": "truncate -s 5000 files.tar",
            "empty": "truncate -s 0 files.tar",
        }
        for name, change in changes.items():
            with self.subTest(name):
                run("sh", "-ec", f"cd {backup}; {change}; sha256sum files.tar manifest left >sums")
                self.assertIn("could not be restored whole", self.assertStatus(1, ctl("rollback")).out)
                self.assertSame(applied, name)
                (backup / "files.tar").write_bytes(kept)
        run("sh", "-ec", f"cd {backup}; sha256sum files.tar manifest left >sums")
        self.assertStatus(0, ctl("rollback"))

    def test_backup_is_for_root_alone(self):
        self.assertStatus(0, ctl("apply"))
        for path in (BACKUPS, BACKUPS / stamps()[0]):
            self.assertEqual((path.stat().st_mode & 0o7777, path.stat().st_uid), (0o700, 0))

    def test_works_when_the_configuration_has_been_broken_since(self):
        before = tree()
        self.assertStatus(0, ctl("apply"))
        write(MASTER_CF, "no service\n")
        write(MAIN_CF, "no parameter\n")
        self.assertStatus(1, ctl("rollback"))
        self.assertStatus(0, ctl("rollback", "--force"))
        self.assertSame(before, "repaired")

    def test_unknown_stamp(self):
        self.assertStatus(0, ctl("apply"))
        before = tree()
        self.assertStatus(1, ctl("rollback", "20000101T000000Z"))
        self.assertStatus(1, ctl("rollback", "../../etc"))
        self.assertStatus(1, ctl("rollback", "/etc/postfix"))
        self.assertSame(before, "nothing was done")

    def test_apply_killed_before_it_changed_anything(self):
        before = tree()
        BACKUPS.mkdir(parents=True)
        (BACKUPS / ".partial").mkdir()
        MARKER.write_text("apply -\n")
        outcome = ctl("check", "--json")
        self.assertEqual([f["subject"] for f in outcome.findings("warning")][0], "unfinished")
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(os.listdir(BACKUPS), [])
        self.assertSame(before, "nothing was done")


class RunningPostfixTest(AroundARunTest):
    LOG = Path("/var/log/postfix-test.log")

    def setUp(self):
        super().setUp()
        remove(self.LOG)
        write(MAIN_CF, MAIN_CF.read_text() + f"maillog_file = {self.LOG}\n")
        run("postfix", "start")
        self.addCleanup(run, "postfix", "stop", check=False)

    def reloads(self):
        return len(re.findall("reload -- version", self.LOG.read_text()))

    def test_reload_is_done_only_when_it_is_asked_for(self):
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertEqual(self.reloads(), 0, "it was stopped and started")
        self.assertIn("-> postfix reload", self.assertStatus(0, ctl("apply")).out)
        self.assertEqual(self.reloads(), 0)
        self.assertStatus(0, ctl("apply", "--reload"))
        wait_until(lambda: self.reloads() == 1, "the reload")
        self.assertStatus(1, ctl("rollback", "20000101T000000Z"))

    def test_lock_is_free_while_postfix_runs_on(self):
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertStatus(0, ctl("rollback"))

    def test_failing_reload_takes_it_back(self):
        self.assertStatus(0, ctl("apply", "--reload")) # from here on a reload suffices
        script = Path("/usr/lib/postfix/sbin/postfix-script")
        text = script.read_text()
        self.addCleanup(write, script, text, 0o755)
        self.assertIn("\nreload)", text)
        write(script, text.replace("\nreload)", "\nreload) echo no reload today >&2; exit 1 ;;\nother)"), 0o755)
        before = tree()
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertIn("no reload today", outcome.findings("failed")[0]["text"])
        changed = {path for path in ctlworld.difference(before, tree()) if path.startswith("/etc")}
        self.assertEqual(changed, set())


if __name__ == "__main__":
    ctlworld.main()
