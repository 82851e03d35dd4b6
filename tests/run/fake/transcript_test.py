"""What a run says, and where it says it."""

import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import golden, transcript
from runworld import CONFIGURATION_ERROR, MAIN_CF, MASTER_CF, NO_DATABASE, RunTest, fatal, main, remove


class TranscriptTest(RunTest):
    def test_every_header_and_step_line_is_printed_when_the_switch_is_1(self):
        run = self.world.run(debug="1")
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_every_header_and_step_line_is_printed_when_the_switch_is_empty(self):
        run = self.world.run(debug="")
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_only_exactly_0_and_unset_switch_progress_off(self):
        for value in ("00", "no", "0 ", " 0", "-0", "0\n", "false", "off"):
            with self.subTest(value):
                self.world.reset()
                self.assertEqual(self.world.run(debug=value).err, transcript())

    def test_progress_goes_to_standard_error_and_messages_of_the_library_to_both(self):
        run = self.world.run(debug="1")
        self.assertEqual(run.out, NO_DATABASE)

    def test_without_the_switch_only_the_missing_database_is_reported(self):
        for value in (None, "0"):
            with self.subTest(value):
                self.world.reset()
                run = self.world.run(debug=value)
                self.assertEqual((run.err, run.out), (NO_DATABASE, NO_DATABASE))
                self.assertCompleted(run)

    def test_without_the_switch_a_run_that_needs_no_database_prints_nothing(self):
        for value in (None, "0"):
            with self.subTest(value):
                self.world.reset()
                self.world.params(myhostname="localhost.localdomain")
                run = self.world.run(debug=value)
                self.assertEqual((run.err, run.out), ("", ""))
                self.assertCompleted(run)

    def test_a_run_that_needs_no_database_says_the_same_steps(self):
        self.world.params(myhostname="localhost.localdomain")
        run = self.world.run()
        self.assertEqual(run.err, transcript().replace(NO_DATABASE, ""))
        self.assertEqual(run.out, "")

    def test_a_second_run_says_the_same(self):
        self.world.run()
        self.assertEqual(self.world.run().err, transcript())

    def test_the_first_line_names_main_cf_as_postfix_does(self):
        other = Path("/etc/postfix-other")
        for directory in ("/etc/postfix-other", "/etc/postfix-other/", "/etc//postfix-other"):
            with self.subTest(directory):
                self.world.reset()
                self.addCleanup(remove, other)
                other.mkdir(exist_ok=True)
                (other / "master.cf").write_bytes(golden("master.cf.before"))
                self.world.defaults(config_directory=directory)
                run = self.world.run()
                first = f"Make sure {directory}/main.cf actually exists\n"
                self.assertEqual(run.err, first + transcript().split("\n", 1)[1])
                self.assertEqual(run.set("smtpd_tls_cert_file"), [directory + "/postfix_default.pem"])
                self.assertEqual((other / "master.cf").read_bytes(), golden("master.cf.after"))
                self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))
                self.assertTrue((other / "main.cf").exists())

    def test_a_fatal_error_is_printed_without_the_switch_too(self):
        for value in (None, "0"):
            with self.subTest(value):
                self.world.reset()
                self.world.rule(tool="postconf", nth=3, exit=1, stderr="postconf: fatal: no\n")
                run = self.world.run(debug=value)
                self.assertFatal(run, fatal(CONFIGURATION_ERROR, "postconf: fatal: no\n"), said="")
                self.assertEqual(run.out, run.err)


class MainCfFileTest(RunTest):
    def test_a_missing_main_cf_is_created_empty_before_any_other_program_runs(self):
        MAIN_CF.unlink()
        run = self.world.run()
        self.assertIsNone(run.calls[0].main_cf)
        self.assertEqual(run.calls[1].main_cf["size"], 0)
        self.assertEqual(MAIN_CF.read_bytes(), b"")
        self.assertCompleted(run)

    def test_a_present_main_cf_keeps_every_byte_and_its_inode(self):
        text = b"# mine\nmyhostname = vm\n\xff no line end"
        MAIN_CF.write_bytes(text)
        before = MAIN_CF.stat()
        self.assertCompleted(self.world.run())
        self.assertEqual(MAIN_CF.read_bytes(), text)
        self.assertEqual((MAIN_CF.stat().st_ino, MAIN_CF.stat().st_mode), (before.st_ino, before.st_mode))

    def test_making_sure_of_a_present_main_cf_leaves_all_its_times_alone(self):
        # An access older than the change: any reading would move its time.
        os.utime(MAIN_CF, (1_000_000_000, 1_000_000_001))
        before = MAIN_CF.stat()
        self.world.rule(tool="postmap", exit=1)
        self.assertEqual(self.world.run().status, 1)
        after = MAIN_CF.stat()
        self.assertEqual((after.st_atime_ns, after.st_mtime_ns, after.st_ctime_ns),
                         (before.st_atime_ns, before.st_mtime_ns, before.st_ctime_ns))

    def test_a_main_cf_that_cannot_be_opened_is_left_to_postfix(self):
        MAIN_CF.unlink()
        MAIN_CF.mkdir()
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_a_configuration_directory_that_does_not_exist_ends_the_run_at_master_cf(self):
        self.world.defaults(config_directory="/etc/nowhere")
        run = self.world.run()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, "unable to open /etc/nowhere/master.cf"))
        self.assertFalse(Path("/etc/nowhere").exists())


if __name__ == "__main__":
    main()
