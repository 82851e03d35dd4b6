"""torva-postfixctl preview, and what all verbs share on the command line."""

import os
import re
import shutil
from pathlib import Path

import ctlworld
from ctlworld import BACKUPS, CTL, INSTALLED, MAIN_CF, TOOL, CtlTest, ctl, program, remove, run, tree, write

STAMP = r"\d{8}T\d{6}Z"

class PreviewTest(CtlTest):
    def test_exit_status_and_message_of_the_tool(self):
        without = "".join(line for line in Path("/etc/passwd").read_text().splitlines(True) if not line.startswith("popuser:"))
        Path("/etc/passwd").write_text(without)
        before = tree()
        outcome = self.assertStatus(1, ctl("preview"))
        self.assertIn("user popusernot found", outcome.out)
        self.assertIn("=== exit status of torva-postfix-setup: 1", outcome.out)
        self.assertSame(before, "after preview")
        outcome = self.assertStatus(0, ctl("preview", "--panel-accounts"))
        self.assertSame(before, "after preview")

    def test_verdict_of_a_postfix_check_that_fails(self):
        program(TOOL, "#!/bin/sh\npostconf -e queue_directory=/no/such/directory\n")
        out = self.assertStatus(0, ctl("preview")).out
        self.assertRegex(out, r"(?m)^exit status 1: .*/no/such/directory")

    def test_tool_gets_progress_no_input_and_no_foreign_service(self):
        program(TOOL, """#!/bin/sh
            echo "debug $TORVA_INSTALLER_DEBUG, input $(wc -c)" >&2
            postconf -M | awk '{ print "type " $2 }' | sort -u >&2\n""")
        self.assertIn("debug 1, input 0\ntype inet\ntype unix\n\n", self.assertStatus(0, ctl("preview")).out)

    def test_shows_everything_for_people(self):
        aliases = re.escape(run("postconf", "-h", "alias_maps").strip())  # differs between releases of Debian
        out = self.assertStatus(0, ctl("preview")).out
        self.assertRegex(out, r"(?m)^\+ virtual_transport = torva_virtual$")
        self.assertRegex(out, rf"(?m)^- alias_maps = {aliases}\n\+ alias_maps = {aliases}, hash:")
        self.assertRegex(out, r"(?m)^\+torva_virtual unix ")
        self.assertNotRegex(out, r"(?m)^[-+]#?postlog")
        self.assertRegex(out, r"(?m)^created  -rw-r--r-- root:root +\d+ /var/spool/postfix/torva/virtual.db$")
        self.assertRegex(out, r"(?m)^exit status 0(: \S+: warning: .*)?$")  # newer ones warn of settings
        self.assertRegex(out, r"(?m)^warning  service .*torva_saslauthd")

    def test_shows_everything_for_programs(self):
        outcome = self.assertStatus(0, ctl("preview", "--json"))
        changes = [o for o in outcome.objects() if "change" in o]
        self.assertEqual({o["change"] for o in changes},
                         {"setting", "master.cf", "created", "changed", "postfix-check", "exit"})
        self.assertIn({"verb": "preview", "change": "setting", "name": "virtual_transport", "before": "",
                       "after": "torva_virtual"}, changes)
        self.assertEqual(changes[-1], {"verb": "preview", "change": "exit", "status": 0})
        self.assertIn("Torva-specific configuration of Postfix completed", outcome.err)

    def test_keeps_only_in_an_empty_directory(self):
        kept = Path("/run/kept-by-test")
        kept.mkdir()
        self.addCleanup(remove, kept)
        (kept / "mine").write_text("x")
        outcome = self.assertStatus(1, ctl("preview", "--keep", str(kept)))
        self.assertIn("is not empty", outcome.err)
        self.assertEqual(os.listdir(kept), ["mine"])

    def test_inside_is_refused_outside(self):
        outcome = ctl("preview", "--inside", "a", "b", "c", argv=["env", "-u", "TORVA_SANDBOX"])
        self.assertStatus(1, outcome)

    def test_leaves_no_process_and_no_mount(self):
        program(TOOL, "#!/bin/sh\nsetsid sleep 1000 </dev/null >/dev/null 2>&1 &\n")
        mounts = Path("/proc/self/mountinfo").read_text()
        processes = sorted(run("ps", "-eo", "comm=").split())
        self.assertStatus(0, ctl("preview"))
        self.assertEqual(mounts, Path("/proc/self/mountinfo").read_text())
        self.assertEqual(processes, sorted(run("ps", "-eo", "comm=").split()))

    def test_in_a_plain_container_it_is_a_copied_tree(self):
        before = tree()
        outcome = ctl("preview", argv=["setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin", "--"])
        self.assertStatus(0, outcome)
        self.assertIn("world: a chroot on a copied tree", outcome.err)
        self.assertRegex(outcome.out, r"(?m)^\+ virtual_transport = torva_virtual$")
        self.assertSame(before, "after preview")


class CommandLineTest(CtlTest):
    def test_help(self):
        self.assertIn("usage: torva-postfixctl", self.assertStatus(0, ctl("--help")).out)

    def test_help_of_each_verb_and_version(self):
        for verb in ("check", "preview", "apply", "diff", "rollback", "backups"):
            for option in ("-h", "--help"):
                out = self.assertStatus(0, ctl(verb, option)).out
                self.assertRegex(out, rf"\Ausage: torva-postfixctl \[--json\] {verb}\b")
        self.assertRegex(self.assertStatus(0, ctl("--version")).out, r"\Atorva-postfixctl \d+\.\d+\.\d+\n\Z")

    def test_what_is_not_understood_ends_with_status_1(self):
        for words in ([], ["nonsense"], ["check", "--reload"], ["apply", "now"], ["rollback", "yesterday"], ["preview", "--keep"],
                      ["preview", "--keep", ""], ["preview", "--keep="]):
            outcome = self.assertStatus(1, ctl(*words))
            self.assertEqual(outcome.out, "")
            self.assertNotEqual(outcome.err, "")
        self.assertFalse(BACKUPS.exists())

    def test_every_failure_is_an_object_with_advice(self):
        BACKUPS.mkdir(parents=True)
        BACKUPS.chmod(0o770)
        cases = {
            ("preview", "--keep", "/etc"): "/etc is not empty, or cannot be made",
            ("apply",): f"{BACKUPS} is not root's alone",
            ("diff",): f"{BACKUPS} is not root's alone",
            ("backups",): f"{BACKUPS} is not root's alone",
        }
        for words, text in cases.items():
            outcome = ctl("--json", *words)
            failed = outcome.findings("failed")
            self.assertEqual([f["text"] for f in failed], [text], outcome)
            self.assertTrue(failed[0]["action"])
            self.assertIn(text, outcome.err)
        outcome = ctl("--json", "backups", argv=["setpriv", "--reuid=nobody", "--clear-groups"])
        self.assertEqual([(f["subject"], f["action"]) for f in outcome.findings("failed")],
                         [("root", "sudo torva-postfixctl backups")])

    def test_preview_of_what_postfix_does_not_read_says_what_to_do(self):
        write(MAIN_CF, "inet_interfaces\n")
        outcome = self.assertStatus(1, ctl("--json", "preview"))
        self.assertEqual([(f["level"], f["subject"]) for f in outcome.findings("stop", "failed")],
                         [("stop", "main.cf"), ("failed", "preview")])

    def test_diff_that_cannot_compare_does_not_end_as_if_something_had_changed(self):
        self.assertIn("is not the name of a backup", self.assertStatus(2, ctl("diff", "yesterday")).err)
        self.assertNotEqual(self.assertStatus(2, ctl("diff", "--reload")).err, "")
        outcome = self.assertStatus(2, ctl("diff", argv=["setpriv", "--reuid=nobody", "--clear-groups"]))
        self.assertIn("must run as root", outcome.err)
        BACKUPS.mkdir(parents=True)
        shutil.chown(BACKUPS, "nobody")
        self.assertIn("is not root's alone", self.assertStatus(2, ctl("diff")).err)

    def test_verb_that_only_tells_fails_when_its_output_is_lost(self):
        before = tree()
        for verb, status in (("check", 1), ("preview", 1), ("apply", 0), ("diff", 2), ("backups", 1), ("rollback", 0)):
            if verb == "diff":
                run("postconf", "-e", "relayhost=[relay.example.net]")
            words = [verb, "--force"] if verb == "rollback" else [verb]
            outcome = self.assertStatus(status, ctl(*words, argv=["sh", "-c", 'exec "$@" >/dev/full', "sh"]))
            self.assertIn("torva-postfixctl: standard output: No space left on device\n", outcome.err)
        self.assertSame(before, "after rollback")

    def test_reader_that_is_gone_is_no_failure(self):
        self.assertEqual(run("bash", "-c", f"{CTL} check | true; echo ${{PIPESTATUS[0]}}"), "0\n")

    def test_verbs_that_change_need_root(self):
        for verb in ("apply", "rollback", "preview", "backups"):
            outcome = self.assertStatus(1, ctl(verb, argv=["setpriv", "--reuid=nobody", "--clear-groups"]))
            self.assertIn("must run as root", outcome.err)

    def test_lists_backups_for_people(self):
        self.assertEqual(ctl("backups").out, "")
        self.assertStatus(0, ctl("apply"))
        self.assertRegex(ctl("backups").out, rf"\A{STAMP}  \d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d  +\d+ bytes  before apply\n"
                                             r"    whole, /etc/postfix, not configured yet\n\Z")

    def test_runs_from_a_checkout(self):
        checkout = Path("/run/checkout")
        self.addCleanup(remove, checkout)
        shutil.copytree(INSTALLED / "scripts", checkout / "scripts")
        built = checkout / "build/release/bin"
        built.mkdir(parents=True)
        shutil.copy(CTL, built / "torva-postfixctl")
        remove(TOOL)
        program(built / "torva-postfix-setup", "#!/bin/sh\n")
        self.assertIn(str(built), run(str(built / "torva-postfixctl"), "check"))
        run(str(built / "torva-postfixctl"), "preview")
        container = ["setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin", "--"]
        self.assertIn("exit status of torva-postfix-setup: 0", run(*container, str(built / "torva-postfixctl"), "preview"))


if __name__ == "__main__":
    ctlworld.main()
