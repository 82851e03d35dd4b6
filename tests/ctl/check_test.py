"""torva-postfixctl check: what it finds, that it changes nothing, and that its advice helps."""

import os
import unittest
from pathlib import Path

import ctlworld
import breakages
import defects
from ctlworld import (CHECKOUT, CTL, MAIN_CF, POSTFIX, TABLES, CtlTest, ctl, name_hashed_aliases, remove, run, settle,
                      tree, write)


class CheckTest(CtlTest):
    @classmethod
    def setUpClass(cls):
        cls.mariadb = CHECKOUT / "tests/tools/private-mariadb"
        if not os.access("/usr/sbin/mariadbd", os.X_OK):
            raise unittest.SkipTest("no MariaDB on this machine")
        run(str(cls.mariadb), "start")
        cls.addClassCleanup(run, str(cls.mariadb), "stop")
        breakages.PASSWORD[:] = [breakages.SHADOW.read_text()]

    def setUp(self):
        super().setUp()
        ctlworld.make_good_host()
        write(breakages.SHADOW, breakages.PASSWORD[0], 0o600)

    def test_reports_nothing_on_a_good_host(self):
        before = tree()
        outcome = self.assertStatus(0, ctl("check", "--json"))
        self.assertEqual(outcome.findings("warning", "stop"), [])
        self.assertEqual(outcome.err, "")
        subjects = {finding["subject"] for finding in outcome.findings("ok")}
        self.assertEqual(subjects, {"program", "map-type", "deprecated", "account", "panel", "pcre-table", "certificate", "network",
                                    "directory", "main.cf", "records", "aliases", "master.cf", "database", "service", "map", "room",
                                    "mydestination"})
        self.assertIn("postlog/unix-dgram", "".join(f["text"] for f in outcome.findings("ok") if f["subject"] == "master.cf"))
        self.assertSame(before, "after check")

    def test_reports_nothing_after_an_apply_either(self):
        self.assertStatus(0, ctl("apply"))
        outcome = self.assertStatus(0, ctl("check", "--json"))
        self.assertEqual(outcome.findings("warning", "stop"), [])

    def test_leaves_no_lock_and_no_scratch_file(self):
        before = sorted(os.listdir("/run/lock")), sorted(os.listdir(os.environ["TMPDIR"]))
        self.assertStatus(0, ctl("check"))
        self.assertEqual(before, (sorted(os.listdir("/run/lock")), sorted(os.listdir(os.environ["TMPDIR"]))))

    def test_needs_root(self):
        outcome = self.assertStatus(1, ctl("--json", "check", argv=["setpriv", "--reuid=nobody", "--clear-groups"]))
        self.assertEqual([f["subject"] for f in outcome.objects()], ["root"])
        self.assertEqual(outcome.objects()[0]["action"], "sudo torva-postfixctl check")

    def test_finding_says_what_to_do_and_colours_are_for_terminals(self):
        remove(POSTFIX / "postfix_default.pem")
        plain = self.assertStatus(0, ctl("check")).out
        self.assertRegex(plain, r"(?m)^warning  certificate /etc/postfix/postfix_default.pem is missing.*\n +-> put certificate")
        self.assertNotIn("\x1b", plain)
        terminal = run("script", "-qec", f"{CTL} check", "/dev/null")
        self.assertIn("\x1b[33mwarning \x1b[m certificate", terminal)

    def test_directory_without_a_configuration_is_a_stop(self):
        os.mkdir("/etc/postfix-empty")
        self.addCleanup(remove, "/etc/postfix-empty")
        before = tree()
        for directory in ("/no/such", "/etc/postfix-empty"):
            for verb in ("check", "apply"):
                outcome = self.assertStatus(1, ctl(verb, "--json", env={**os.environ, "MAIL_CONFIG": directory}))
                self.assertEqual([f["action"] for f in outcome.findings("stop")],
                                 ["correct MAIL_CONFIG, or put Postfix's configuration there"])
                self.assertSame(before, verb)
        self.assertFalse(ctlworld.MARKER.exists())

    def test_tables_that_are_no_directory_are_a_stop(self):
        for make in (lambda: TABLES.symlink_to("/no/such"), lambda: TABLES.symlink_to("torva"), TABLES.touch):
            remove(TABLES)
            make()
            stops = self.assertStatus(1, ctl("check", "--json")).findings("stop")
            self.assertEqual([(f["subject"], f["action"]) for f in stops], [("directory", f"rm {TABLES}")])
            run("sh", "-c", stops[0]["action"])
            self.assertStatus(0, ctl("check"))

    def test_alias_file_or_index_that_postalias_cannot_open_is_a_stop(self):
        name_hashed_aliases()
        aliases, index = Path("/etc/aliases"), Path("/etc/aliases.db")
        for path, make in ((aliases, lambda: aliases.symlink_to("/no/such/aliases")),
                           (aliases, lambda: aliases.symlink_to("aliases")),
                           (index, lambda: index.symlink_to("aliases.db")),
                           (index, index.mkdir)):
            remove(path)
            make()
            stops = self.assertStatus(1, ctl("check", "--json")).findings("stop")
            self.assertEqual([f["subject"] for f in stops], ["aliases"])
            self.assertTrue(stops[0]["text"].startswith(f"{path}: "), stops)
            self.assertEqual(stops[0]["action"], f"rm -d {path}")
            run("sh", "-c", stops[0]["action"])
            self.assertStatus(0, ctl("check"))

    def test_says_nothing_of_mail_to_the_host_when_a_table_gives_no_answer(self):
        write("/etc/postfix/mc", "memcache = inet:localhost:11211\n")
        for value in ("memcache:/etc/postfix/mc", "/no/such/file"):
            write(MAIN_CF, MAIN_CF.read_text() + f"mydestination = {value}\n")
            outcome = self.assertStatus(0, ctl("check", "--json"))
            self.assertNotIn("mydestination", {f["subject"] for f in outcome.objects()})

    def test_bytes_that_are_not_text_stay_valid_json(self):
        write(MAIN_CF, MAIN_CF.read_bytes() + b"virtual_alias_maps = hash:/no/\"\\\x07\xff\xc3\xa9\n")
        outcome = self.assertStatus(0, ctl("check", "--json"))
        text = outcome.findings("warning")[0]["text"]
        self.assertIn('hash:/no/"\\', text)
        self.assertIn("\xff\xc3\xa9", text)


def promise(defect):
    def test(self):
        clean_up = defect.prepare()
        if callable(clean_up):
            self.addCleanup(clean_up)
        before = tree()
        outcome = self.assertStatus(int(defect.level == "stop"), ctl("check", "--json"))
        found = [f for f in outcome.findings(defect.level)
                 if f["subject"] == defect.subject and defect.text in f["text"]]
        self.assertEqual(len(found), 1, outcome)
        self.assertSame(before, "after check")
        if defect.level != "ok":
            self.assertEqual(outcome.findings("warning", "stop"), found)
            self.assertEqual(found[0]["action"], defect.action or found[0]["action"])
            defect.cure(found[0]["action"])
            settle(MAIN_CF)
            self.assertEqual(ctl("check", "--json").findings("warning", "stop"), [], "after the advice was followed")
    return test


for defect in defects.DEFECTS:
    setattr(CheckTest, f"test_finds_{defect.name}", promise(defect))

if __name__ == "__main__":
    ctlworld.main()
