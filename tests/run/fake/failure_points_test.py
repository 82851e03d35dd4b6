"""Every program of a first run fails once, in every way a program can fail."""

import os
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from calls import spelled
from goldens import commands, golden, transcript
from runworld import CONFIGURATION_ERROR, DATABASE_ERROR, MAIN_CF, MASTER_CF, NO_DATABASE, RunTest, fatal, main

TEXT = "postconf: warning: bad\npostconf: fatal: no good: really\n"
DEFAULTS_ASKED = "/usr/sbin/postconf -h -d config_directory"
WARNING = ("Detected problems with $myhostname parameter in Postfix main.cf, but unable to execute `hostname -f`, "
           "leave $myhostname untouched\n")


def kind_of(command):
    """read, write, create, put, alias or hostname."""
    if command.argv[0].endswith("postconf"):
        return "read" if command.argv[1] == "-h" else "write"
    if command.argv[0].endswith("postmap"):
        return "put" if "-i" in command.argv else "create"
    return "alias" if command.argv[0].endswith("postalias") else "hostname"


def with_the_old_host_name():
    """The commands of a first run in which the host name could not be repaired."""
    result = []
    for command in commands("first_run.commands"):
        argv = list(command.argv)
        if argv[1:] == ["-h", "mydomain"] or argv[-1].split("=")[0] in ("myhostname", "mydomain", "mydestination") \
                and argv[1] == "-e":
            continue
        result.append(spelled(argv, command.stdin.replace("@host.example.net", "@vm")))
    return result


class FailurePoints(RunTest):
    """The walk; each subclass is one way of failing.

    effects: the fields of the rule. texts: what the error says; None: it is not a
    failure. said: what a program that shares our standard error says."""

    effects = {}
    said = ""
    read_text = write_text = table_text = put_text = None
    alias_fails = True

    def everything_before(self, expected, number):
        return [str(command) for command in expected[: number - 1]]

    def walk(self, *kinds):
        expected = commands("first_run.commands")
        walked = 0
        for number, command in enumerate(expected, 1):
            if kind_of(command) not in kinds:
                continue
            walked += 1
            with self.subTest(f"call {number}: {command}"):
                self.world.reset()
                self.world.rule(n=number, **self.effects_on(command))
                self.check(self.world.run(), expected, number, command)
        self.assertGreater(walked, 0)

    def effects_on(self, command):
        return self.effects

    def check(self, run, expected, number, command):
        texts = {"read": (CONFIGURATION_ERROR, self.read_text), "write": (CONFIGURATION_ERROR, self.write_text),
                 "create": (DATABASE_ERROR, self.table_text), "put": (CONFIGURATION_ERROR, self.put_text)}
        kind = kind_of(command)
        if kind == "hostname":
            self.check_warned(run, command)
        elif kind == "read" and number == 1:
            self.check_asked_for_defaults(run, expected)
        elif kind == "alias" and self.alias_fails:
            pattern = r"\AFatal error: torva::SystemError\(unable to re-index system alias map: [^\n]+\)\n\Z"
            self.assertFatal(run, re.compile(pattern))
            # The shell may add a word of its own about a signal.
            self.assertRegex(run.err, "\\A" + re.escape(command.said + self.said) + r"([A-Z][a-z]+\n)?Fatal error: ")
            self.check_cut(run, expected, number)
        elif kind == "alias" or texts[kind][1] is None:
            said = transcript()
            if kind == "alias":
                said = command.said + self.said + said[len(command.said):]
            self.assertEqual(run.err, said)
            self.assertEqual(run.commands, [str(each) for each in expected])
            self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
            self.assertCompleted(run)
        else:
            self.assertFatal(run, fatal(*texts[kind]), said=command.said)
            self.check_cut(run, expected, number)

    def check_cut(self, run, expected, number):
        """Nothing later ran, nothing earlier was undone, master.cf is the old one."""
        self.assertEqual(run.commands, [str(command) for command in expected[:number]])
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))
        values = {"myhostname": "vm", "mydestination": self.world.param("mydestination")}
        for command in expected[: number - 1]:
            if kind_of(command) == "write":
                name, value = command.argv[2].split("=", 1)
                values[name] = value
        self.assertEqual(self.world.all_params(), values)
        library = NO_DATABASE if NO_DATABASE in run.err else ""
        self.assertEqual(run.out, library + run.err[run.err.index("Fatal error: "):])

    def check_asked_for_defaults(self, run, expected):
        rest = [str(command) for command in expected]
        self.assertEqual(run.commands, [rest[0], DEFAULTS_ASKED, *rest[1:]])
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def check_warned(self, run, command):
        text = transcript()
        # The shell may add a word of its own about a signal.
        self.assertRegex(run.err, "\\A" + re.escape(command.said + self.said) + r"([A-Z][a-z]+\n)?" +
                         re.escape(WARNING + text[len(command.said):]) + "\\Z")
        self.assertEqual(run.commands, with_the_old_host_name())
        self.assertEqual(run.out, NO_DATABASE)
        self.assertCompleted(run)


class Walks:
    def test_where_a_parameter_is_read(self):
        self.walk("read")

    def test_where_a_parameter_is_written(self):
        self.walk("write")

    def test_where_a_table_is_created_or_filled(self):
        self.walk("create", "put")

    def test_where_the_shell_starts_a_program(self):
        self.walk("alias", "hostname")


class ExitsWithTextTest(Walks, FailurePoints):
    effects = {"exit": 1, "stderr": TEXT}
    said = TEXT
    read_text = write_text = table_text = put_text = TEXT


class ExitsWithoutTextTest(Walks, FailurePoints):
    effects = {"exit": 1}
    read_text = write_text = table_text = put_text = "unknown error"


class DiesOfSignalTest(Walks, FailurePoints):
    effects = {"signal": 9}
    read_text = write_text = table_text = put_text = "unknown error"


class SaysFatalAndExitsZeroTest(Walks, FailurePoints):
    """Only reading a parameter can fail by the text alone."""

    said = read_text = TEXT
    alias_fails = False

    def effects_on(self, command):
        if kind_of(command) in ("read", "hostname"):
            return {"exit": 0, "stderr": TEXT}
        return {"default": 1, "stderr": TEXT}


class MoreFailuresTest(RunTest):
    def test_the_text_of_a_program_that_died_of_a_signal_is_the_error(self):
        for signal in (15, 9):
            with self.subTest(signal):
                self.world.reset()
                self.world.rule(n=9, signal=signal, stderr="last words\n")
                self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, "last words\n"))

    def test_the_text_of_a_failing_program_is_neither_trimmed_nor_cut(self):
        text = "  \n\tline one\n\n" + "x" * 200_000 + "\n  "
        self.world.rule(n=9, exit=1, stderr=text)
        self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, text))

    def test_every_other_exit_status_is_a_failure_too(self):
        for status in (2, 64, 75, 127, 255):
            with self.subTest(status):
                self.world.reset()
                self.world.rule(n=2, exit=status)
                self.assertFatal(self.world.run(), fatal(DATABASE_ERROR, "unknown error"))

    def test_config_directory_refused_in_both_forms_ends_the_run_with_the_second_text(self):
        self.world.rule(n=1, exit=1, stderr="first\n")
        self.world.rule(n=2, exit=1, stderr="second\n")
        run = self.world.run()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, "second\n"), said="")
        self.assertEqual(run.commands, ["/usr/sbin/postconf -h config_directory", DEFAULTS_ASKED])

    def test_an_empty_config_directory_ends_the_run_before_its_first_line(self):
        text = "unable to determine Postfix config_directory parameter"
        self.world.rule(n=1, stdout="\n")
        run = self.world.run()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, text), said="")
        self.assertEqual(run.commands, ["/usr/sbin/postconf -h config_directory"])

    def test_an_empty_default_of_config_directory_ends_the_run_too(self):
        self.world.rule(n=1, exit=1)
        self.world.rule(n=2, stdout="")
        self.assertFatal(self.world.run(), fatal(
            CONFIGURATION_ERROR, "unable to determine Postfix config_directory parameter"), said="")

    def test_an_empty_config_directory_for_master_cf_ends_the_run_after_the_services_header(self):
        number = [str(c) for c in commands("first_run.commands")].index("/usr/sbin/postconf -e virtual_gid_maps=static:31")
        self.world.rule(n=number + 2, stdout="\n")
        text = transcript()
        header = "Configuring Postfix services/modules for Torva:\n"
        self.assertFatal(self.world.run(), fatal(
            CONFIGURATION_ERROR, "unable to determine Postfix config_directory parameter"),
            said=text[: text.index(header) + len(header)])

    def test_warnings_of_a_program_that_answers_are_not_heard(self):
        self.world.rule(tool="postconf", default=1, stderr="postconf: fatal: not meant: at all\n")
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_an_empty_answer_with_a_warning_is_an_empty_value(self):
        self.world.rule(args=["-h", "transport_maps"], stderr="postconf: warning: unused parameter: x=y\n")
        run = self.world.run()
        self.assertEqual(run.set("transport_maps"), ["hash:/var/spool/postfix/torva/transport"])
        self.assertCompleted(run)

    def test_the_severity_words_count_only_where_postconf_writes_them(self):
        name = "transport_maps"
        rows = [
            ("postconf: panic: x: y\n", True), ("postconf: error: x\n", True), ("a:    fatal: b\n", True),
            ("postconf: warning: a: b\npostconf: fatal: c: d\n", True), ("postconf: fatal: no line end", True),
            ("postconf: fatal\n", False), ("postconf:\tfatal: x\n", False), ("postconf: Fatal: x: y\n", False),
            ("fatal: x y\n", False), ("postconf: warning: fatal: x\n", False), (":fatal: x\n", True),
            ("postconf: \n", False), ("postconf:\n", False), ("\n\n", False), ("postconf: errors: x\n", False),
        ]
        for text, fails in rows:
            with self.subTest(text):
                self.world.reset()
                self.world.rule(args=["-h", name], stderr=text)
                run = self.world.run()
                if fails:
                    self.assertFatal(run, fatal(CONFIGURATION_ERROR, text))
                else:
                    self.assertCompleted(run)

    def test_a_table_whose_program_fails_stays_empty_and_the_later_ones_are_not_touched(self):
        torva = Path("/var/spool/postfix/torva")
        torva.mkdir(parents=True)
        for name in ("virtual", "vmailbox"):
            (torva / name).write_text("old\n")
        self.world.rule(args=["-r", "hash:/var/spool/postfix/torva/virtual"], exit=1)
        self.assertFatal(self.world.run(), fatal(DATABASE_ERROR, "unknown error"))
        self.assertEqual([(torva / name).read_text() for name in ("virtual", "vmailbox")], ["", "old\n"])

    def test_a_put_that_never_reads_its_input_fails_with_its_own_text(self):
        for effects in ({"stdin": "ignore"}, {"stdin": "close"}):
            with self.subTest(**effects):
                self.world.reset()
                self.world.rule(args=["-r", "-i", "hash:/var/spool/postfix/torva/virtual"], exit=1,
                                stderr="postmap: fatal: no\n", **effects)
                self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, "postmap: fatal: no\n"))

    def test_a_put_that_leaves_its_input_unread_and_succeeds_is_a_success(self):
        self.world.rule(args=["-r", "-i", "hash:/var/spool/postfix/torva/virtual"], stdin="ignore", sleep_ms=200)
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_a_program_that_floods_both_streams_is_heard_to_the_end(self):
        flood = "postconf: warning: much: " + "y" * 300_000 + "\n"
        self.world.rule(args=["-h", "transport_maps"], stdout="x" * 300_000 + "\n", stderr=flood)
        # The value comes through; written back, it is more than the kernel takes as one argument.
        self.assertFatal(self.world.run(), fatal(
            "torva::SystemError", "execv: Argument list too long: Argument list too long"))


class KilledTest(RunTest):
    """The program itself is killed while a tool runs: every file on disk is complete."""

    def test_a_killed_run_leaves_the_old_master_cf_and_no_temporary_file(self):
        expected = commands("first_run.commands")
        for number in (1, 2, 8, 9, 25, 52, len(expected)):
            for signal in (9, 15):
                with self.subTest(f"call {number}, signal {signal}"):
                    self.world.reset()
                    self.world.rule(n=number, pause="/run/fake/go", default=1)
                    running = self.world.start()
                    running.wait_until(f"call {number}", lambda: len(self.world.calls()) == number)
                    running.process.send_signal(signal)
                    running.process.wait()
                    Path("/run/fake/go").touch()
                    self.reap()
                    self.assertEqual(self.world.leftovers(), [])
                    self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))
                    self.assertEqual(MAIN_CF.read_text(), "# the administrator's\n")
                    self.world.forget()
                    run = self.world.run()
                    self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
                    self.assertCompleted(run)

    def reap(self):
        """The tool that was running ends by itself; it is our child now."""
        try:
            while True:
                os.waitpid(-1, 0)
        except ChildProcessError:
            pass


if __name__ == "__main__":
    main()
