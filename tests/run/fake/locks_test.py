"""Locks that another program of the panel holds."""

import fcntl
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import commands, golden, transcript
from lockfiles import HeldLock, LOCKS
from runworld import DISABLED, MASTER_CF, TABLES, TORVA, RunTest, fatal, main

GO = Path("/run/fake/go")


class TableLockTest(RunTest):
    def test_a_table_that_somebody_works_on_ends_the_run_and_keeps_its_source(self):
        for position, name in enumerate(TABLES):
            with self.subTest(name):
                self.world.reset()
                TORVA.mkdir(parents=True)
                (TORVA / name).write_text("theirs\n")
                with HeldLock(TORVA / name):
                    run = self.world.run()
                error = fatal("std::runtime_error", f"lock({TORVA / name}) failed: file is already locked")
                self.assertFatal(run, error)
                self.assertEqual(run.out, error)
                self.assertEqual((TORVA / name).read_text(), "theirs\n")
                self.assertEqual(len(run.commands), 1 + position)

    def test_a_lock_on_the_source_itself_is_not_asked_for(self):
        TORVA.mkdir(parents=True)
        with open(TORVA / "virtual", "w") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertCompleted(self.world.run())

    def test_a_put_waits_for_the_lock_of_its_table(self):
        # The lock is taken once the table was created and before it is filled.
        self.world.params(myhostname="host.example.net")
        self.world.rule(args=["-h", "mydestination"], default=1, pause=GO)
        running = self.world.start()
        running.wait_until("the host domain step", lambda: self.world.calls()[-1:] and
                           self.world.calls()[-1].argv[-1] == "mydestination")
        self.waits(running, TORVA / "virtual", lambda run: self.assertEqual(run.err, transcript()))

    def test_a_write_of_main_cf_waits_for_its_lock(self):
        self.world.rule(tool="postmap", nth=7, default=1, pause=GO)
        running = self.world.start()
        running.wait_until("the last table", lambda: len(self.world.calls()) == 8)
        self.waits(running, "/etc/postfix/main.cf", lambda run: self.assertEqual(
            run.commands, [str(command) for command in commands("first_run.commands")]))

    def test_the_lock_of_main_cf_has_one_name_wherever_main_cf_is(self):
        other = Path("/etc/postfix/other")
        other.mkdir()
        (other / "master.cf").write_text("# m\n")
        self.world.defaults(config_directory=str(other))
        run = self.world.run()
        self.assertEqual(run.status, 0, run.err)
        for call in run.calls:
            if call.argv[1] == "-e":
                self.assertEqual(call.locked, ["_etc_postfix_main.cf"])
        self.assertTrue((LOCKS / "_etc_postfix_other_master.cf").exists())

    def test_a_read_of_main_cf_waits_for_nobody(self):
        with HeldLock("/etc/postfix/main.cf"):
            self.world.rule(args=["-h", "config_directory"], stdout="\n")
            self.assertEqual(self.world.run(timeout=30).status, 1)

    def test_the_save_waits_for_the_lock_of_master_cf(self):
        number = len(commands("first_run.commands"))
        self.world.rule(n=number, default=1, pause=GO)
        running = self.world.start()
        running.wait_until("the last program", lambda: len(self.world.calls()) == number)

        def check(run):
            self.assertEqual(run.err, transcript())
            self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
        self.waits(running, MASTER_CF, check, lambda: self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before")))

    def test_the_save_waits_for_the_lock_of_the_store(self):
        TORVA.mkdir(parents=True)
        DISABLED.write_text("tlsmgr unix - - y - - old\n")
        number = len(commands("first_run.commands"))
        self.world.rule(n=number, default=1, pause=GO)
        running = self.world.start()
        running.wait_until("the last program", lambda: len(self.world.calls()) == number)
        self.waits(running, DISABLED, lambda run: self.assertEqual(DISABLED.read_text(), "\n"),
                   lambda: self.assertEqual(DISABLED.read_text(), "tlsmgr unix - - y - - old\n"))

    def test_a_second_run_that_has_nothing_to_save_waits_for_nobody(self):
        self.world.run()
        with HeldLock(MASTER_CF):
            self.assertEqual(self.world.run().status, 0)

    def waits(self, running, target, check, while_waiting=lambda: None):
        with HeldLock(target) as lock:
            GO.touch()
            running.wait_until("the program waits for the lock", running.waits_for_lock)
            time.sleep(0.05)
            self.assertIsNone(running.process.poll())
            while_waiting()
            self.assertTrue(running.waits_for_lock())
            lock.release()
        run = running.finish()
        self.assertCompleted(run)
        check(run)


class TwoAtOnceTest(RunTest):
    def test_two_runs_at_once_both_end_and_leave_one_whole_configuration(self):
        """One may find a table locked by the other; neither waits for ever."""
        first = self.world.start()
        second = self.world.start()
        runs = [first.finish(), second.finish()]
        self.assertIn(0, [run.status for run in runs])
        self.assertLessEqual({run.status for run in runs}, {0, 1})
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))
        self.assertEqual(self.world.leftovers(), [])


if __name__ == "__main__":
    main()
