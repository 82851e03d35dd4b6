"""A rehearsal that meets obstacles: programs that hang, a kernel that lacks something. It
leaves nothing behind, however it ends."""

import os
import signal
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import rehearsalworld as world
from rehearsalworld import (HOST, PANEL, POSTFIX, QUEUES, SPOOL, RehearsalTest, main, postconf, processes, program,
                            rehearse, remove, run, set_aliases, start_rehearsal, tree, wait_until)


class HangingTest(RehearsalTest):
    def test_sendmail_that_hangs_is_told_within_the_time(self):
        program("/usr/local/sbin/hanging-sendmail", "#!/bin/sh\ntrap '' TERM\nsleep 1000 & wait\nsleep 1000\n")
        postconf("sendmail_path=/usr/local/sbin/hanging-sendmail")
        rehearsed = self.assertLevels(rehearse(timeout=35), "warning ok ok ok")
        self.assertIn("did not end in time", rehearsed.findings[0]["text"])

    def test_panel_program_that_never_answers_does_not_hold_it_up(self):
        program(PANEL / "postfix-queue", "#!/bin/sh\ntrap '' TERM HUP INT\nsleep 1000\n")
        self.assertLevels(rehearse(timeout=35), "warning warning warning ok")

    def assertNoStart(self, last_line):
        """With a "postfix" that ignores SIGTERM and does this."""
        program(Path("/run/commands/postfix"), f"#!/bin/sh\ntrap '' TERM\n{last_line}\n")
        postconf("command_directory=/run/commands")
        rehearsed = rehearse(timeout=35)
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertIn("Postfix did not start within 8 seconds", rehearsed.findings[0]["text"])

    def test_postfix_that_does_not_come_up_is_told_within_the_time(self):
        self.assertNoStart("sleep 1000")

    def test_postfix_that_says_no_more_and_does_not_end_is_told_within_the_time(self):
        self.assertNoStart("exec sleep 1000 <&- >&- 2>&-")

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


class LesserKernelTest(RehearsalTest):
    """Where the kernel lacks what the rehearsal would like to have."""

    def in_sandbox(self, script, *words):
        """In a sandbox inside this one: the kernel does not stack a third overlay on two."""
        sandbox = (world.SANDBOX, "--loopback-only", "--with", world.RECORDS, "--")
        return run(*sandbox, "sh", "-c", script, "sh", *words)

    def rehearse_without_overlays(self, script):
        third = ("mkdir /run/upper /run/work; mount -t overlay x -o lowerdir=/var,upperdir=/run/upper,"
                 "workdir=/run/work /media 2>/dev/null && echo mounted; :")
        if self.in_sandbox(third):
            self.skipTest("an overlay can be mounted on what a sandbox in a sandbox has for /var")
        return world.Rehearsed(self.in_sandbox(f"{script} exec \"$@\"", world.REHEARSE, POSTFIX, HOST))

    def test_without_overlays_every_message_is_told_all_the_same(self):
        before = tree("/etc/postfix", "/var/spool", "/var/mail")
        self.assertLevels(self.rehearse_without_overlays(""), "ok ok ok ok")
        self.assertEqual(tree("/etc/postfix", "/var/spool", "/var/mail"), before)

    def test_without_overlays_nothing_is_written_outside_and_that_is_told(self):
        """A place on two overlays stands for a file system of the host that the sandbox shares."""
        set_aliases("postmaster: root", "root: /srv/mbox")
        rehearsed = self.rehearse_without_overlays(
            "mkdir -m 777 /var/shared && touch /var/shared/mbox && chmod 666 /var/shared/mbox &&"
            " mount --bind /var/shared /srv &&")
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
        set_aliases("postmaster: root", "root: /srv/mbox, \"|/bin/sh -c 'cat >/srv/copy.$$ && test -s /srv/copy.$$'\"")
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
        """In a mount namespace that sees the machine's own /etc, which is not a mount point. (/run often is one.)"""
        result = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                                 "umount --lazy /etc && exec \"$@\"", "sh", world.REHEARSE, POSTFIX, HOST],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)

    def test_without_a_network_of_its_own_nothing_is_sent(self):
        rehearsed = rehearse("no-network")
        self.assertEqual([(f["level"], f["subject"]) for f in rehearsed.findings], [("warning", "delivery")])
        self.assertTrue(rehearsed.findings[0]["text"].startswith("No message was sent: "), rehearsed)


if __name__ == "__main__":
    main()
