"""What a careless parent may hand to the program: streams, signals, limits, directories."""

import itertools
import os
import resource
import signal
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import commands, golden, transcript
from runworld import (CAPTURE, FAKE, MAIN_CF, MASTER_CF, NO_DATABASE, TABLES, TORVA, RunTest, fatal, main, remove,
                      sanitized)


class SurroundingsTest(RunTest):
    def ignored(self, call):
        # The C library's popen(3) leaves its own two signals ignored.
        return {n for n in range(1, 65) if int(call.ignored, 16) >> (n - 1) & 1} - {32, 33}

    def expectTheFirstRun(self, run):
        self.assertEqual(run.commands, [str(command) for command in commands("first_run.commands")])
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
        self.assertCompleted(run)


class ClosedStreamsTest(SurroundingsTest):
    def test_every_combination_of_closed_streams_starts_the_same_programs(self):
        for debug, count in itertools.product(("1", None), range(4)):
            for closed in itertools.combinations((0, 1, 2), count):
                with self.subTest(debug=debug, closed=closed):
                    self.world.reset()

                    def close(descriptors=closed):
                        for descriptor in descriptors:
                            os.close(descriptor)
                    run = self.world.run(debug=debug, preexec_fn=close)
                    self.expectTheFirstRun(run)
                    said = transcript() if debug else NO_DATABASE
                    self.assertEqual(run.err, "" if 2 in closed else said)
                    self.assertEqual(run.out, "" if 1 in closed else NO_DATABASE)
                    self.assertEqual(MAIN_CF.read_text(), "# the administrator's\n")
                    for call in run.calls:
                        self.assertEqual(call.fds, ["0", "1", "2"], str(call))
                        self.assertEqual(call.stdin, "" if "-i" not in call.argv else call.stdin)

    def test_an_error_with_every_stream_closed_still_has_its_status(self):
        self.world.rule(n=9, exit=1, stderr="no\n")
        run = self.world.run(preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual((run.status, run.err, run.out), (1, "", ""))
        self.assertEqual(len(run.calls), 9)

    def test_an_error_with_one_stream_closed_is_on_the_other(self):
        for closed in (1, 2):
            with self.subTest(closed):
                self.world.reset()
                self.world.rule(n=9, exit=1, stderr="no\n")
                run = self.world.run(debug=None, preexec_fn=lambda: os.close(closed))
                error = fatal("torva::mail::postfix::PostfixConfigurationError", "no\n")
                self.assertEqual((run.out, run.err), (error, "") if closed == 2 else ("", error))

    def test_streams_that_nobody_reads_do_not_stop_a_quiet_run(self):
        self.world.params(myhostname="localhost.localdomain")
        read_end, write_end = os.pipe()
        os.close(read_end)
        run = self.world.run(debug=None, stdout=write_end, stderr=write_end)
        os.close(write_end)
        self.assertCompleted(run)

    def test_streams_that_nobody_reads_with_that_signal_ignored_change_nothing(self):
        read_end, write_end = os.pipe()
        os.close(read_end)
        for out, err in ((write_end, None), (None, write_end), (write_end, write_end)):
            with self.subTest(out=out, err=err):
                self.world.reset()
                run = self.world.run(stdout=out, stderr=err, preexec_fn=ignore(signal.SIGPIPE))
                self.expectTheFirstRun(run)
        os.close(write_end)

    def test_a_reader_that_leaves_stops_nothing(self):
        """As with `tool | head`, and with an installer whose log has died."""
        read_end, write_end = os.pipe()
        os.close(read_end)
        for out, err in ((write_end, None), (None, write_end), (write_end, write_end)):
            with self.subTest(out=out, err=err):
                self.world.reset()
                run = self.world.run(stdout=out, stderr=err)
                self.expectTheFirstRun(run)
                self.assertEqual({tuple(self.ignored(call)) for call in run.calls}, {()})
        os.close(write_end)

    def test_warnings_that_nobody_reads_end_no_command(self):
        """What a shell runs has our standard error, and Postfix 3.11 warns there with every postalias."""
        read_end, write_end = os.pipe()
        os.close(read_end)
        self.world.params(myhostname="host", mydomain="localdomain")
        self.world.hostname("host.example.net\n")
        for tool in ("postalias", "hostname"):
            self.world.rule(tool=tool, stderr=f"{tool}: warning: nobody reads this\n", default=1)
        run = self.world.run(stderr=write_end)
        os.close(write_end)
        self.assertCompleted(run)
        self.assertIn("postalias", {call.tool for call in run.calls})
        self.assertEqual(self.world.param("myhostname"), "host.example.net")

    def test_a_fatal_error_that_nobody_reads_still_has_its_status(self):
        read_end, write_end = os.pipe()
        os.close(read_end)
        error = fatal("torva::mail::postfix::PostfixConfigurationError", "no\n")
        for out, err, debug in itertools.product((write_end, None), (write_end, None), ("1", None)):
            with self.subTest(out=out, err=err, debug=debug):
                self.world.reset()
                self.world.rule(n=9, exit=1, stderr="no\n")
                run = self.world.run(debug=debug, stdout=out, stderr=err)
                self.assertEqual(run.status, 1)
                self.assertTrue(out is not None or run.out.endswith(error))
                self.assertTrue(err is not None or run.err.endswith(error))
        os.close(write_end)

    def test_streams_on_a_full_device_stop_nothing(self):
        with open("/dev/full", "w") as full:
            self.expectTheFirstRun(self.world.run(stdout=full, stderr=full))


def ignore(*signals):
    def act():
        for number in signals:
            signal.signal(number, signal.SIG_IGN)
    return act


def block(signals):
    return lambda: signal.pthread_sigmask(signal.SIG_BLOCK, signals)


class SignalsTest(SurroundingsTest):
    def test_an_ignored_sigchld_hides_no_exit_status(self):
        run = self.world.run(preexec_fn=ignore(signal.SIGCHLD))
        self.expectTheFirstRun(run)
        self.assertEqual({n for call in run.calls for n in self.ignored(call)}, set())

    def test_a_failure_is_seen_with_sigchld_ignored(self):
        self.world.rule(tool="postalias", nth=1, exit=1)
        run = self.world.run(preexec_fn=ignore(signal.SIGCHLD))
        self.assertEqual(run.status, 1)
        self.assertIn("unable to re-index system alias map: ", run.out)

    def test_an_ignored_sigpipe_stays_ignored_for_the_tools(self):
        run = self.world.run(preexec_fn=ignore(signal.SIGPIPE))
        self.expectTheFirstRun(run)
        self.assertEqual({tuple(self.ignored(call)) for call in run.calls}, {(int(signal.SIGPIPE),)})

    def test_every_blocked_signal_stays_blocked_for_the_tools(self):
        for signals in ({signal.SIGCHLD}, {signal.SIGPIPE}, {signal.SIGTERM, signal.SIGINT}, signal.valid_signals()):
            with self.subTest(signals if len(signals) < 5 else "all"):
                self.world.reset()
                run = self.world.run(preexec_fn=block(signals))
                self.expectTheFirstRun(run)
                expected = {int(n) for n in signals} - {signal.SIGKILL, signal.SIGSTOP}
                # The shell between us and the other two clears the mask.
                for call in (call for call in run.calls if call.tool in ("postconf", "postmap")):
                    blocked = {n for n in range(1, 65) if int(call.blocked, 16) >> (n - 1) & 1}
                    # Some C library signals cannot be blocked by a program.
                    self.assertEqual(blocked - {32, 33}, expected - {32, 33}, str(call))

    def test_all_signals_that_can_be_ignored_are(self):
        numbers = [n for n in signal.valid_signals() if n not in (signal.SIGKILL, signal.SIGSTOP)]
        self.expectTheFirstRun(self.world.run(preexec_fn=ignore(*numbers)))

    def test_a_storm_of_signals_with_handlers_changes_nothing(self):
        """SIGCHLD and SIGWINCH from outside interrupt system calls at any moment."""
        running = self.world.start()
        while running.process.poll() is None:
            running.process.send_signal(signal.SIGWINCH)
            running.process.send_signal(signal.SIGCHLD)
        self.expectTheFirstRun(running.finish())


def limit_descriptors(number):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (number, number))


class LimitsTest(SurroundingsTest):
    def test_a_whole_run_needs_few_descriptors_at_a_time(self):
        self.expectTheFirstRun(self.world.run(preexec_fn=limit_descriptors(24)))

    def test_the_highest_limit_on_descriptors_breaks_nothing(self):
        limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        self.expectTheFirstRun(self.world.run(preexec_fn=limit_descriptors(limit)))

    def test_too_few_descriptors_end_the_run_with_the_name_of_the_call(self):
        if sanitized():
            self.skipTest("the sanitizer looks at memory through descriptors of its own")
        for number, call in ((4, "process set catcher control pipe"), (5, "pipe")):
            with self.subTest(number):
                self.world.reset()
                run = self.world.run(preexec_fn=limit_descriptors(number))
                self.assertFatal(run, fatal("torva::SystemError", f"{call}: Too many open files"), said="")
                self.assertEqual(run.commands, [])

    def test_descriptors_that_the_parent_left_open_neither_disturb_nor_multiply(self):
        def open_many():
            resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
            for number in range(3, 2000):
                os.dup2(0, number)
        run = self.world.run(preexec_fn=open_many, close_fds=False)
        self.expectTheFirstRun(run)
        for call in run.calls:
            self.assertEqual(len(call.fds), 2000, str(call))

    def test_a_limit_on_file_size_leaves_the_old_master_cf(self):
        # The fakes inherit the limit and write more than that: it comes last.
        number = len(commands("first_run.commands"))
        self.world.rule(n=number, default=1, pause="/run/fake/go")
        running = self.world.start(preexec_fn=ignore(signal.SIGXFSZ))
        running.wait_until("the last program", lambda: len(self.world.calls()) == number)
        resource.prlimit(running.process.pid, resource.RLIMIT_FSIZE, (512, 512))
        Path("/run/fake/go").touch()
        self.assertEqual(running.finish().status, 1)
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))
        self.assertEqual(self.world.leftovers(), [])
        self.assertIn("(write: File too large)", self.world.outcome(1).out)


class PlacesTest(SurroundingsTest):
    def test_a_working_directory_that_is_gone_is_not_needed(self):
        gone = tempfile.mkdtemp()

        def leave():
            os.chdir(gone)
            os.rmdir(gone)
        self.expectTheFirstRun(self.world.run(cwd=None, preexec_fn=leave))

    def test_no_file_is_made_in_the_working_directory(self):
        place = CAPTURE / "here"
        place.mkdir()
        self.expectTheFirstRun(self.world.run(cwd=place))
        self.assertEqual(os.listdir(place), [])

    def test_the_modes_of_tables_and_master_cf_do_not_depend_on_the_umask(self):
        for mask in (0o077, 0o000, 0o777):
            with self.subTest(oct(mask)):
                self.world.reset()
                os.chmod(FAKE, 0o777)
                # The directory is there, for with mask 777 not even its owner may use a new one.
                TORVA.mkdir()
                run = self.world.run(umask=mask)
                self.expectTheFirstRun(run)
                modes = {path: path.stat().st_mode & 0o7777 for path in [MASTER_CF, *(TORVA / name for name in TABLES)]}
                self.assertEqual(set(modes.values()), {0o644}, modes)

    def test_a_main_cf_and_an_alias_source_that_had_to_be_made_have_mode_0644_whatever_the_umask(self):
        aliases = Path("/etc/aliases")
        for mask in (0o077, 0o000):
            with self.subTest(oct(mask)):
                self.world.reset()
                os.chmod(FAKE, 0o777)
                for path in (MAIN_CF, aliases):
                    remove(path)
                self.assertCompleted(self.world.run(umask=mask))
                self.assertEqual([path.stat().st_mode & 0o7777 for path in (MAIN_CF, aliases)], [0o644, 0o644])

    def test_a_hostile_environment_changes_nothing(self):
        run = self.world.run(env={"LC_ALL": "xx_YY", "IFS": "/", "TMPDIR": "/nowhere", "HOME": "/nowhere",
                                  "POSIXLY_CORRECT": "1", "MALLOC_PERTURB_": "77"})
        self.expectTheFirstRun(run)
        self.assertEqual(run.err, transcript())


if __name__ == "__main__":
    main()
