"""On a host where systemd runs Postfix, apply and rollback go through systemctl: a
stand-in for it notes what it is asked for, and does it to the Postfix of the sandbox."""

import subprocess
from pathlib import Path

import ctlworld
from ctlworld import (MAIN_CF, MARKER, POSTFIX, AroundARunTest, ctl, kill_group, postconf, program, remove,
                      run, start, tree, wait_until, write)

ASKED = Path("/run/systemctl-asked")
ANSWER = Path("/run/systemctl-answer")  # a script that the stand-in sources before it does anything
MASTER_PID = Path("/var/spool/postfix/pid/master.pid")
REAL_POSTFIX = "/usr/sbin/postfix.real"

# A Postfix that systemd has started is in the control group of its unit. The file that says
# so is covered, because a real group would be one of the machine's.
SYSTEMCTL = f"""#!/bin/sh
echo "$*" >>{ASKED}
put_into_unit() {{
    pid=$(tr -d ' ' <{MASTER_PID})
    mount --bind /run/unit-cgroup "/proc/$pid/cgroup"
}}
[ ! -e {ANSWER} ] || . {ANSWER}
# systemd gives it to what it starts; without it, Debian 13's Postfix asks systemd to start it.
export INVOCATION_ID=0
case $1 in
    restart) {REAL_POSTFIX} stop; {REAL_POSTFIX} start || exit; put_into_unit ;;
    reload-or-restart) {REAL_POSTFIX} status && exec {REAL_POSTFIX} reload; {REAL_POSTFIX} start && put_into_unit ;;
    *) echo "Unknown command verb $1." >&2; exit 1 ;;
esac
"""


class SystemdWorld(AroundARunTest):
    UNIT = "postfix@-.service"

    def setUp(self):
        super().setUp()
        for path in (ASKED, ANSWER, "/run/systemd"):
            remove(path)
        Path("/run/systemd/system").mkdir(parents=True)
        self.addCleanup(remove, "/run/systemd")
        self.put_in_place("/usr/bin/systemctl", SYSTEMCTL)
        write("/run/unit-cgroup", f"1:name=systemd:/system.slice/{self.UNIT}\n"
              f"0::/system.slice/system-postfix.slice/{self.UNIT}\n")
        # A reload suffices for what the short run changes, except for the pickup service.
        write(MAIN_CF, MAIN_CF.read_text() + "inet_interfaces = all\n")
        self.addCleanup(run, "postfix", "stop", check=False)
        run("systemctl", "restart", self.UNIT)
        remove(ASKED)

    def put_in_place(self, path, text):
        if Path(path).exists():
            self.replace_program(path, text)
        else:
            program(path, text)
            self.addCleanup(remove, path)

    def asked(self):
        lines = ASKED.read_text().splitlines() if ASKED.exists() else []
        remove(ASKED)
        return lines

    def assertRuns(self):
        self.assertEqual(subprocess.run([REAL_POSTFIX, "status"], stderr=subprocess.DEVNULL).returncode, 0)

    def assertConfigurationIs(self, before):
        changed = {path for path in ctlworld.difference(before, tree()) if path.startswith(str(POSTFIX))}
        self.assertEqual(changed, set())


class SystemdTest(SystemdWorld):
    def test_reloads_where_that_suffices_else_stops_and_starts(self):
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertEqual(self.asked(), [f"restart {self.UNIT}"])
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertEqual(self.asked(), [f"reload-or-restart {self.UNIT}"])
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertEqual(self.asked(), [f"restart {self.UNIT}"])
        self.assertRuns()

    def test_without_reload_the_command_is_printed_and_nothing_is_asked(self):
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], f"systemctl restart {self.UNIT}")
        self.assertEqual(self.asked(), [])
        run("sh", "-c", outcome.findings("done")[-1]["action"])
        self.asked()
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], f"systemctl reload-or-restart {self.UNIT}")
        self.assertEqual(self.asked(), [])

    def test_failing_systemctl_takes_the_apply_back_and_restarts_once_more(self):
        before = tree()
        ANSWER.write_text("[ -e /run/failed ] || { touch /run/failed; echo no restart today >&2; exit 3; }\n")
        self.addCleanup(remove, "/run/failed")
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertEqual([(f["subject"], f["text"]) for f in outcome.findings("failed")],
                         [("reload", "failed: no restart today"), ("apply", "everything is as it was before")])
        # After a failed restart the daemon's settings are not known: a reload would not do.
        self.assertEqual(self.asked(), [f"restart {self.UNIT}"] * 2)
        self.assertConfigurationIs(before)
        self.assertRuns()

    def test_systemctl_that_always_fails_is_told_twice_with_the_command(self):
        before = tree()
        ANSWER.write_text("echo no restart today >&2; exit 3\n")
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertEqual([(f["subject"], f["text"]) for f in outcome.findings("failed")],
                         [("reload", "failed: no restart today")] * 2 + [("apply", "everything is as it was before")])
        self.assertEqual(outcome.findings("failed")[1]["action"], f"systemctl restart {self.UNIT}")
        self.assertConfigurationIs(before)

    def test_failing_systemctl_of_a_rollback_is_told_with_the_command(self):
        before = tree()
        self.assertStatus(0, ctl("apply", "--reload"))
        ANSWER.write_text("echo no restart today >&2; exit 3\n")
        outcome = self.assertStatus(1, ctl("rollback", "--reload", "--json"))
        failed = outcome.findings("failed")[0]
        self.assertEqual((failed["subject"], failed["text"], failed["action"]),
                         ("reload", "failed: no restart today", f"systemctl restart {self.UNIT}"))
        self.assertConfigurationIs(before)

    def test_systemctl_that_never_answers_is_not_waited_for_without_end(self):
        """With a timeout(1) that is faster."""
        before = tree()
        ANSWER.write_text("sleep 60\n")
        self.put_in_place("/usr/local/sbin/timeout",
                          f"#!/bin/sh\nif [ \"$2\" = systemctl ]; then\necho \"timeout $1\" >>{ASKED}\nshift\n"
                          "exec /usr/bin/timeout 0.5 \"$@\"\nfi\nexec /usr/bin/timeout \"$@\"\n")
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertEqual(outcome.findings("failed")[0]["text"],
                         f"failed: systemctl restart {self.UNIT} did not end within 300 seconds")
        self.assertIn("timeout 300", self.asked())
        self.assertConfigurationIs(before)

    def test_missing_systemctl_is_told(self):
        remove("/usr/bin/systemctl")
        program("/usr/bin/systemctl", "#!/no/such/interpreter\n")
        outcome = self.assertStatus(1, ctl("apply", "--reload", "--json"))
        self.assertIn("systemctl: ", outcome.findings("failed")[0]["text"])

    def test_postfix_that_systemd_does_not_run_is_left_to_its_own_command(self):
        run("umount", f"/proc/{MASTER_PID.read_text().strip()}/cgroup")
        # As under another supervisor: else the start of Debian 13's Postfix goes through systemd.
        self.assertStatus(0, ctl("apply", "--reload", argv=["env", "INVOCATION_ID=0"]))
        self.assertEqual(self.asked(), [])
        self.assertRuns()

    def test_masked_unit_is_not_told_to_be_started(self):
        unit = Path("/etc/systemd/system/postfix.service")
        unit.symlink_to("/dev/null")
        self.addCleanup(remove, unit)
        run("postfix", "stop")
        self.assertIn("-> postfix start", self.assertStatus(0, ctl("apply")).out)

    def test_postfix_that_was_stopped_by_an_apply_that_was_killed_is_started_by_its_unit(self):
        write("/etc/systemd/system/postfix.service", "[Service]\n")
        self.addCleanup(remove, "/etc/systemd/system/postfix.service")
        before = postconf("-n")
        self.addCleanup(remove, "/run/stopped")
        ANSWER.write_text(f"{REAL_POSTFIX} stop; touch /run/stopped; exec sleep 60\n")
        process = start("apply", "--reload")
        wait_until(lambda: Path("/run/stopped").exists(), "the stop")
        kill_group(process)
        self.assertTrue(MARKER.exists())
        remove(ANSWER)
        self.asked()
        self.assertStatus(0, ctl("rollback", "--reload"))
        self.assertEqual(self.asked(), ["restart postfix.service"])
        self.assertEqual(before, postconf("-n"))
        self.assertRuns()

    def test_stopped_postfix_of_systemd_comes_with_the_command_of_systemd(self):
        write("/etc/systemd/system/postfix.service", "[Service]\n")
        self.addCleanup(remove, "/etc/systemd/system/postfix.service")
        run("postfix", "stop")
        outcome = self.assertStatus(0, ctl("apply", "--reload", "--json"))
        self.assertEqual(outcome.findings("done")[-1]["action"], "systemctl restart postfix.service")
        self.assertIn("-> systemctl restart postfix.service", self.assertStatus(0, ctl("rollback")).out)
        self.assertEqual(self.asked(), [])


class PlainUnitTest(SystemdWorld):
    UNIT = "postfix.service"

    def test_unit_that_is_no_instance_is_asked_by_its_own_name(self):
        self.assertStatus(0, ctl("apply", "--reload"))
        self.assertEqual(self.asked(), ["restart postfix.service"])
        self.assertRuns()


if __name__ == "__main__":
    ctlworld.main()
