"""The rehearsal on the machine's own Postfix, on good hosts and on bad ones."""

import os
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import rehearsalworld as world
from rehearsalworld import (HOST, PANEL, POSTFIX, QUEUES, SPOOL, TABLES, main, postconf, processes, program, rehearse,
                            remove, restore, run, set_aliases, start_rehearsal, tree, wait_until)

SENDMAIL = "sendmail root"
LOOPBACK = f"from loopback to root@{HOST}"
OUTSIDE = f"from outside to postmaster@{HOST}"
RELAYING = "relaying from outside to somebody@elsewhere.example"
MESSAGES = (SENDMAIL, LOOPBACK, OUTSIDE, RELAYING)


class RehearsalTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        if not world.KEPT.exists():
            world.KEPT.mkdir()
            world.make_host()

    def setUp(self):
        restore()
        self.addCleanup(lambda: self.assertEqual(processes(), {}, "left running"))

    def assertLevels(self, rehearsed, levels, others=()):
        """The levels of the four messages, and how the texts of all other findings begin."""
        self.assertEqual([f["level"] for f in rehearsed.findings[:4]], levels.split(), rehearsed)
        for finding, message in zip(rehearsed.findings, MESSAGES):
            self.assertTrue(finding["text"].startswith(message + ": "), rehearsed)
        rest = rehearsed.findings[4:]
        self.assertEqual(len(rest), len(others), rehearsed)
        for finding, start in zip(rest, others):
            self.assertEqual(finding["level"], "warning", rehearsed)
            self.assertTrue(finding["text"].startswith(start), rehearsed)
        self.assertEqual({f["subject"] for f in rehearsed.findings}, {"delivery"}, rehearsed)
        self.assertFalse([f for f in rehearsed.findings if "\n" in f["text"] + f["advice"]], rehearsed)
        return rehearsed


class GoodHostTest(RehearsalTest):
    def test_every_message_arrives_and_relaying_is_refused(self):
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        for message in (SENDMAIL, LOOPBACK, OUTSIDE):
            self.assertRegex(rehearsed.about(message)[0]["text"],
                             r": delivered to root@\S+ by local \(delivered to mailbox\)\. "
                             r"Log: postfix/local\[\d+\]: \w+: to=<root@.*status=sent \(delivered to mailbox\)$")
        self.assertRegex(rehearsed.about(RELAYING)[0]["text"],
                         r": refused: [45]54 \S+ <somebody@elsewhere.example>: Relay access denied\. "
                         r"Log: postfix/smtpd\[\d+\]: NOQUEUE: reject: RCPT from outside\.example\[203\.0\.113\.25\]")
        self.assertEqual([f["advice"] for f in rehearsed.findings], [""] * 4)

    def test_host_name_is_asked_of_postfix_when_none_is_given(self):
        self.assertLevels(world.Rehearsed(run(world.REHEARSE, POSTFIX, "")), "ok ok ok ok")

    def test_restrictions_that_ask_name_servers_do_not_stand_in_the_way(self):
        postconf("smtpd_helo_required=yes",
                 "smtpd_helo_restrictions=reject_invalid_helo_hostname, reject_non_fqdn_helo_hostname, "
                 "reject_unknown_helo_hostname",
                 "smtpd_sender_restrictions=reject_non_fqdn_sender, reject_unknown_sender_domain",
                 "smtpd_client_restrictions=reject_unknown_client_hostname, reject_rbl_client list.example")
        self.assertLevels(rehearse(), "ok ok ok ok")

    def test_log_that_goes_to_a_file_is_read_all_the_same(self):
        postconf("maillog_file=/var/log/mail.log")
        before = tree("/etc/postfix")
        self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertEqual(tree("/etc/postfix"), before)
        self.assertFalse(Path("/var/log/mail.log").exists())

    def test_mail_for_another_host_has_done_its_part(self):
        set_aliases("postmaster: root", "root: admin@example.com")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertIn(": leaves this host for admin@example.com (not sent:", rehearsed.findings[0]["text"])

    def test_address_of_the_outside_is_none_that_postfix_trusts(self):
        run("ip", "link", "add", "host0", "type", "veth", "peer", "name", "host1")
        self.addCleanup(run, "ip", "link", "delete", "host0")
        run("ip", "address", "add", "203.0.113.5/24", "dev", "host0")
        run("ip", "link", "set", "host0", "up")
        postconf("mynetworks_style=subnet", "mynetworks=127.0.0.0/8 203.0.113.0/24")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertIn("outside.example[198.51.100.25]", rehearsed.findings[3]["text"])


class BadHostTest(RehearsalTest):
    def test_missing_programs_of_the_panel_are_named(self):
        for name in ("postfix-queue", "postfix-local", "postfix-mailman"):
            remove(PANEL / name)
        rehearsed = self.assertLevels(
            rehearse(), "warning warning warning ok",
            [f"The panel's {PANEL}/postfix-{name} is missing: " for name in ("mailman", "local", "queue")]
            if self.first_is_mailman() else
            [f"The panel's {PANEL}/postfix-{name} is missing: " for name in ("local", "mailman", "queue")])
        for finding in rehearsed.findings[:3]:
            self.assertEqual(finding["advice"],
                             "The panel's postfix-queue is missing: install the panel's mail programs.")
        self.assertRegex(rehearsed.findings[0]["text"], r"deferred at 127\.0\.0\.1\[127\.0\.0\.1\]:10027: ")

    @staticmethod
    def first_is_mailman():
        text = (POSTFIX / "master.cf").read_text()
        return text.index("\nmailman") < text.index("\ntorva_virtual")

    def test_missing_tables_of_the_panel_are_named(self):
        remove(TABLES / "no_relay.re")
        remove(TABLES / "non_auth.re")
        rehearsed = self.assertLevels(rehearse(), "ok warning warning warning")
        for finding in rehearsed.findings[1:3]:
            self.assertRegex(finding["text"], r": refused: 451 4\.3\.5 .* Log: .*/torva/non_auth\.re: No such file")
            self.assertEqual(finding["advice"],
                             "The panel writes this table; until then smtpd answers 451 to every client.")
        self.assertTrue(rehearsed.findings[3]["advice"].startswith(
            "The server failed, it did not decide: this proves nothing about relaying. "), rehearsed)

    def test_service_that_cannot_start_is_told_with_its_reason(self):
        postconf("smtpd_recipient_restrictions=permit", "smtpd_relay_restrictions=permit")
        rehearsed = self.assertLevels(rehearse(), "ok warning warning warning",
                                      ["The service program smtpd could not start. Log: postfix/smtpd["])
        for finding in rehearsed.findings[1:]:
            self.assertIn("fatal: in parameter smtpd_relay_restrictions or smtpd_recipient_restrictions",
                          finding["text"])

    def test_daemon_that_is_missing_is_told_with_its_service(self):
        local = Path(run("postconf", "-h", "daemon_directory").strip(), "local")
        local.rename("/usr/lib/postfix/kept-local")
        self.addCleanup(Path("/usr/lib/postfix/kept-local").rename, local)
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok",
                                      [f"{local} is missing: service local of master.cf cannot do without it."])
        self.assertIn(": accepted, but not delivered in time: local could not start.", rehearsed.findings[0]["text"])

    def test_address_in_no_domain_class_comes_with_the_command_that_helps(self):
        postconf("mydestination=$myhostname, localhost")
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok")
        advice = rehearsed.findings[0]["advice"]
        self.assertEqual({f["advice"] for f in rehearsed.findings[:3]}, {advice})
        run("sh", "-c", advice[advice.index("postconf -e "):])
        world.settle(POSTFIX / "main.cf")
        self.assertLevels(rehearse(), "ok ok ok ok")

    def test_open_relay_is_told(self):
        postconf("mynetworks=0.0.0.0/0")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok warning")
        self.assertIn(": accepted: 250 ", rehearsed.findings[3]["text"])

    def test_message_that_a_rule_holds_is_told(self):
        postconf("header_checks=static:HOLD")
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok")
        self.assertIn(": accepted, then held: hold: header ", rehearsed.findings[0]["text"])

    def test_unknown_recipient_is_told(self):
        set_aliases("postmaster: nobody-of-this-name")
        rehearsed = self.assertLevels(rehearse(), "ok ok warning ok")
        self.assertIn('bounced at local: unknown user: "nobody-of-this-name".', rehearsed.findings[2]["text"])

    def test_program_beside_postfix_that_is_asked_is_told_so(self):
        postconf("smtpd_milters=inet:127.0.0.1:8891")
        rehearsed = rehearse()
        self.assertIn("connect to Milter service inet:127.0.0.1:8891: Connection refused",
                      rehearsed.about(OUTSIDE)[0]["text"])
        self.assertTrue(rehearsed.about(OUTSIDE)[0]["advice"].startswith("Only Postfix is started here."), rehearsed)

    def test_master_cf_that_postfix_refuses_is_told_in_its_words(self):
        with (POSTFIX / "master.cf").open("a") as file:
            file.write("one two three\n")
        rehearsed = rehearse()
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertRegex(rehearsed.findings[0]["text"],
                         r"^Postfix does not start, so no message was sent: .*fatal: .*master\.cf: line \d+: bad field")

    def test_main_cf_that_postfix_refuses_is_told_in_its_words(self):
        postconf("default_process_limit=many")
        rehearsed = rehearse()
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertIn("fatal: bad numerical configuration: default_process_limit = many",
                      rehearsed.findings[0]["text"])

    def test_sendmail_that_hangs_is_told_within_the_time(self):
        program("/usr/local/sbin/hanging-sendmail", "#!/bin/sh\ntrap '' TERM\nsleep 1000 & wait\nsleep 1000\n")
        postconf("sendmail_path=/usr/local/sbin/hanging-sendmail")
        rehearsed = self.assertLevels(rehearse(timeout=35), "warning ok ok ok")
        self.assertIn("did not end in time", rehearsed.findings[0]["text"])

    def test_panel_program_that_never_answers_does_not_hold_it_up(self):
        program(PANEL / "postfix-queue", "#!/bin/sh\ntrap '' TERM HUP INT\nsleep 1000\n")
        self.assertLevels(rehearse(timeout=35), "warning warning warning ok")

    def test_postfix_that_does_not_come_up_is_told_within_the_time(self):
        commands = Path("/run/commands")
        program(commands / "postfix", "#!/bin/sh\ntrap '' TERM\nsleep 1000\n")
        postconf("command_directory=/run/commands")
        rehearsed = rehearse(timeout=35)
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertTrue(rehearsed.findings[0]["text"].startswith("Postfix does not start"), rehearsed)

    def test_postfix_that_says_no_more_and_does_not_end_is_told_within_the_time(self):
        commands = Path("/run/commands")
        program(commands / "postfix", "#!/bin/sh\ntrap '' TERM\nexec sleep 1000 <&- >&- 2>&-\n")
        postconf("command_directory=/run/commands")
        rehearsed = rehearse(timeout=60)
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertTrue(rehearsed.findings[0]["text"].startswith("Postfix does not start"), rehearsed)


class LesserKernelTest(RehearsalTest):
    """Where the kernel lacks what the rehearsal would like to have."""

    def nested(self, script):
        """Rehearses behind a script, in a sandbox on top of this one: on two overlays the
        kernel stacks no third."""
        return world.Rehearsed(run(world.SANDBOX, "--loopback-only", "--with", world.RECORDS, "--",
                                   "sh", "-c", f"{script}\nexec \"$@\"", "sh", world.REHEARSE, POSTFIX, HOST))

    def test_without_overlays_every_message_is_told_all_the_same(self):
        run(world.SANDBOX, "--loopback-only", "--", "sh", "-c", "mkdir /run/upper /run/work && ! mount -t overlay x "
            "-o lowerdir=/var,upperdir=/run/upper,workdir=/run/work /media 2>/dev/null")
        before = tree("/etc/postfix", "/var/spool", "/var/mail")
        self.assertLevels(self.nested(""), "ok ok ok ok")
        self.assertEqual(tree("/etc/postfix", "/var/spool", "/var/mail"), before)

    def test_without_overlays_nothing_is_written_outside_and_that_is_told(self):
        """A place on two overlays stands for a file system of the host that the sandbox shares."""
        set_aliases("postmaster: root", "root: /srv/mbox")
        rehearsed = self.nested("mkdir -m 777 /var/shared && touch /var/shared/mbox && chmod 666 /var/shared/mbox &&"
                                " mount --bind /var/shared /srv")
        self.assertLevels(rehearsed, "warning warning warning ok")
        for finding in rehearsed.findings[:3]:
            self.assertIn("Read-only file system", finding["text"])
            self.assertEqual(finding["advice"], "The rehearsal lets nothing be written there: look at this place on "
                             "the host itself.")

    def test_without_a_cable_what_needs_none_is_sent(self):
        ip = Path(run("which", "ip").strip())
        real = ip.with_name("ip.real")
        ip.rename(real)
        self.addCleanup(real.replace, ip)
        program(ip, f"#!/bin/sh\ncase \"$*\" in *veth*) echo 'Error: Unknown device type.' >&2; exit 2 ;; esac\n"
                f"exec {real} \"$@\"\n")
        rehearsed = self.assertLevels(rehearse(), "ok ok warning warning")
        for finding in rehearsed.findings[2:]:
            self.assertTrue(finding["text"].endswith(
                ": not sent: no network to the outside: ip: Error: Unknown device type."), finding)
            self.assertEqual(finding["advice"], "This tells nothing about mail from outside: rehearse where the "
                             "kernel has veth(4).")


class CutOffTest(RehearsalTest):
    def test_rehearsal_that_hangs_is_cut_off_and_nothing_of_it_is_left(self):
        mounts = Path("/proc/self/mountinfo").read_text()
        addresses = run("ip", "-o", "address")
        process = start_rehearsal()
        wait_until(lambda: "master" in processes().values(), "the start of Postfix")
        stage = int(Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()[0])
        os.kill(stage, signal.SIGSTOP)
        out, _ = process.communicate(timeout=60)
        rehearsed = world.Rehearsed(out.decode())
        self.assertEqual((process.returncode, [f["level"] for f in rehearsed.findings]), (0, ["warning"]), rehearsed)
        self.assertIn("it was cut off after 30 seconds, while ", rehearsed.findings[0]["text"])
        wait_until(lambda: processes() == {}, "the end of every process")
        self.assertEqual(Path("/proc/self/mountinfo").read_text(), mounts)
        wait_until(lambda: run("ip", "-o", "address") == addresses, "the end of the cable")


class NothingIsLeftTest(RehearsalTest):
    def test_no_file_changes_and_the_queue_of_the_host_waits_on(self):
        waiting = [SPOOL / queue / "0A1B2C3D" for queue in QUEUES if (SPOOL / queue).is_dir()]
        for path in waiting:
            path.write_text("a message that waits\n")
            self.addCleanup(remove, path)
        Path("/var/mail/root").write_text("mail from before\n")
        self.addCleanup(remove, Path("/var/mail/root"))
        roots = ("/etc/postfix", "/var/spool", "/var/mail", "/var/lib/postfix", "/run", "/srv", "/dev")
        before = tree(*roots)
        self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertEqual(tree(*roots), before)

    def test_what_postfix_runs_writes_nowhere_outside(self):
        """A tmpfs on /srv stands for a file system of the host that the sandbox shares."""
        run("mount", "-t", "tmpfs", "host", "/srv")
        self.addCleanup(run, "umount", "/srv")
        Path("/srv").chmod(0o777)
        Path("/srv/mbox").write_text("before\n")
        Path("/srv/mbox").chmod(0o666)
        set_aliases("postmaster: root", "root: /srv/mbox, \"|/bin/sh -c 'cat >/srv/copy && test -s /srv/copy'\"")
        before = tree("/srv")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertIn("(delivered to file: /srv/mbox)", rehearsed.findings[0]["text"])
        self.assertIn("(delivered to command: ", rehearsed.findings[0]["text"])
        self.assertEqual(tree("/srv"), before)

    def test_network_is_as_before(self):
        before = run("ip", "-o", "address"), run("ip", "route"), run("ip", "netns")
        rehearse()
        wait_until(lambda: run("ip", "-o", "address") == before[0], "the end of the cable")
        self.assertEqual((run("ip", "-o", "address"), run("ip", "route"), run("ip", "netns")), before)

    def test_killed_rehearsal_leaves_no_process_and_no_mount(self):
        mounts = Path("/proc/self/mountinfo").read_text()
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGINT):
            for sign in ("master", "qmgr", "smtpd"):
                with self.subTest(signal=number.name, sign=sign):
                    process = start_rehearsal()
                    wait_until(lambda: sign in processes().values() or process.poll() is not None, sign)
                    process.send_signal(number)
                    process.communicate()
                    wait_until(lambda: processes() == {}, "the end of every process")
                    self.assertEqual(Path("/proc/self/mountinfo").read_text(), mounts)

    def test_caller_with_odd_signals_and_closed_streams_gets_the_same(self):
        script = "trap '' CHLD PIPE TERM HUP; exec <&- 2>&-; exec \"$@\""
        out = subprocess.run(["bash", "-c", script, "bash", world.REHEARSE, POSTFIX, HOST], check=True,
                             stdout=subprocess.PIPE, text=True, timeout=60).stdout
        self.assertLevels(world.Rehearsed(out), "ok ok ok ok")


class RefusalTest(RehearsalTest):
    def test_outside_of_the_private_world_nothing_is_done(self):
        for kind in (None, "chroot"):
            environment = {k: v for k, v in os.environ.items() if k != "TORVA_SANDBOX"}
            if kind:
                environment["TORVA_SANDBOX"] = kind
            result = subprocess.run([world.REHEARSE, POSTFIX, HOST], env=environment, stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True)
            self.assertEqual((result.returncode, result.stdout, result.stderr),
                             (1, "", "rehearse: a rehearsal works in the private world of scripts/sandbox only\n"))

    def test_without_mounts_of_its_own_the_word_of_the_environment_does_not_count(self):
        """In a mount namespace in which /run is none of its own any more."""
        result = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                                 "umount --lazy /run && exec \"$@\"", "sh", world.REHEARSE, POSTFIX, HOST],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)

    def test_without_a_network_of_its_own_nothing_is_sent(self):
        rehearsed = rehearse("no-network")
        self.assertEqual([(f["level"], f["subject"]) for f in rehearsed.findings], [("warning", "delivery")])
        self.assertTrue(rehearsed.findings[0]["text"].startswith("No message was sent: "), rehearsed)


if __name__ == "__main__":
    main()
