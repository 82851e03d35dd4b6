"""The programs that a run starts, their order, and the state that each of them finds."""

import os
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import commands, golden
from runworld import CAPTURE, MAIN_CF, MASTER_CF, TABLES, TORVA, RunTest, main


def tables_lock(name):
    return "_var_spool_postfix_torva_" + name


class CommandsTest(RunTest):
    def check(self, run, name):
        expected = commands(name)
        self.assertEqual(run.commands, [str(command) for command in expected])
        for number, (call, command) in enumerate(zip(run.calls, expected), 1):
            self.assertEqual(run.said_before(call), command.said, f"call {number}: {call}")
        self.assertCompleted(run)

    def test_a_first_run_starts_exactly_these_programs_each_after_its_own_text(self):
        self.check(self.world.run(), "first_run.commands")
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))

    def test_a_second_run_starts_exactly_these_programs_each_after_its_own_text(self):
        self.world.run()
        self.world.forget()
        self.check(self.world.run(), "second_run.commands")

    def test_a_third_run_is_like_the_second(self):
        self.world.run()
        self.world.run()
        self.world.forget()
        self.check(self.world.run(), "second_run.commands")

    def test_the_switch_changes_no_command(self):
        run = self.world.run(debug=None)
        self.assertEqual(run.commands, [str(command) for command in commands("first_run.commands")])

    def test_a_second_run_leaves_master_cf_and_its_inode_alone(self):
        self.world.run()
        before = MASTER_CF.stat()
        self.assertCompleted(self.world.run())
        after = MASTER_CF.stat()
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
        self.assertEqual((after.st_ino, after.st_mtime_ns), (before.st_ino, before.st_mtime_ns))

    def test_a_second_run_changes_no_parameter(self):
        self.world.run()
        before = self.world.all_params()
        self.world.run()
        self.assertEqual(self.world.all_params(), before)


class SurroundingsOfTheToolsTest(RunTest):
    def test_every_program_gets_the_three_standard_descriptors_and_no_other(self):
        run = self.world.run()
        for call in run.calls:
            self.assertEqual(call.fds, ["0", "1", "2"], str(call))

    def test_no_signal_is_blocked_or_ignored_in_a_program(self):
        run = self.world.run()
        for call in run.calls:
            # The C library's popen(3) leaves its own two signals ignored.
            ignored = int(call.ignored, 16) & ~(3 << 31)
            self.assertEqual((int(call.blocked, 16), ignored), (0, 0), str(call))

    def test_a_write_of_main_cf_and_each_run_of_postmap_holds_its_lock_and_nothing_else_does(self):
        run = self.world.run()
        for call in run.calls:
            expected = []
            if call.argv[1] == "-e":
                expected = ["_etc_postfix_main.cf"]
            elif call.tool == "postmap":
                expected = [tables_lock(call.argv[-1].rsplit("/", 1)[1])]
            self.assertEqual(call.locked, expected, str(call))

    def test_nothing_reads_the_standard_input_of_the_program(self):
        self.world.rule(tool="postconf", stdin="ignore", default=1)
        self.world.rule(tool="postalias", stdin="ignore", default=1)
        self.world.rule(tool="hostname", stdin="ignore", default=1)
        poison = CAPTURE / "input"
        poison.write_text("poison\n" * 10)
        with open(poison, "rb") as file:
            run = self.world.run(stdin=file)
            self.assertEqual(os.lseek(file.fileno(), 0, os.SEEK_CUR), 0)
        self.assertEqual(run.commands, [str(command) for command in commands("first_run.commands")])

    def test_every_table_is_empty_and_readable_by_all_when_postmap_reads_it(self):
        TORVA.mkdir(parents=True)
        for name in TABLES:
            (TORVA / name).write_text("old record\n")
            (TORVA / name).chmod(0o600)
        run = self.world.run()
        created = [call for call in run.calls if call.tool == "postmap" and "-i" not in call.argv]
        self.assertEqual([call.argv[-1] for call in created], ["hash:" + str(TORVA / name) for name in TABLES])
        for call in created:
            self.assertEqual((call.source["size"], call.source["mode"]), (0, 0o644), str(call))
        for name in TABLES:
            self.assertEqual((TORVA / name).read_bytes(), b"", name)
            self.assertEqual((TORVA / name).stat().st_mode & 0o7777, 0o644, name)

    def test_after_each_write_main_cf_looks_older_than_postfix_minds(self):
        run = self.world.run()
        previous = None
        for call in run.calls:
            if previous is not None and previous.argv[1] == "-e":
                self.assertGreaterEqual(call.main_cf["age_ms"], 2500, f"after {previous}")
                self.assertLess(call.main_cf["age_ms"], 600_000, f"after {previous}")
            previous = call
        self.assertGreaterEqual(time.time() - MAIN_CF.stat().st_mtime, 2.5)

    def test_a_failed_write_leaves_the_time_of_main_cf_alone(self):
        os.utime(MAIN_CF, (1_000_000_000, 1_000_000_000))
        self.world.rule(args=["-e", "inet_interfaces=all"], exit=1, stderr="no\n")
        self.assertEqual(self.world.run().status, 1)
        self.assertEqual(MAIN_CF.stat().st_mtime, 1_000_000_000)


if __name__ == "__main__":
    main()
