"""Missing programs, full disks, files where directories should be."""

import os
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import commands, golden, transcript
from lockfiles import LOCKS
from runworld import (CAPTURE, CONFIGURATION_ERROR, MASTER_CF, POSTFIX, TABLES, TORVA, RunTest, as_mortal,
                      fatal, main, remove)

SYSTEM_ERROR = "torva::SystemError"
FILESYSTEM_ERROR = "boost::filesystem::filesystem_error"
POSTCONF = Path("/usr/sbin/postconf")
POSTMAP = Path("/usr/sbin/postmap")
POSTALIAS = Path("/usr/sbin/postalias")
LAST_STEP = " storing Postfix modules configuration"


def until(step):
    text = transcript()
    return text[: text.index("\n" + step + "...") + len(step) + 4]


class ProgramsTest(RunTest):
    def check(self, path, spoil, reason):
        """A program that cannot be started: the message has the reason twice, once from the child."""
        spoil(path)
        run = self.world.run()
        said = "" if path == POSTCONF else until(" Virtual Domains DB")
        self.assertFatal(run, fatal(SYSTEM_ERROR, f"execv: {reason}: {reason}"), said=said)
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))
        self.world.reset()

    def test_a_program_that_is_missing(self):
        for path in (POSTCONF, POSTMAP):
            self.check(path, remove, "No such file or directory")

    def test_a_program_that_may_not_be_executed(self):
        for path in (POSTCONF, POSTMAP):
            self.check(path, lambda p: p.chmod(0o644), "Permission denied")

    def test_a_program_that_is_a_directory(self):
        for path in (POSTCONF, POSTMAP):
            self.check(path, lambda p: (p.unlink(), p.mkdir()), "Permission denied")

    def test_a_program_of_another_format(self):
        for path in (POSTCONF, POSTMAP):
            self.check(path, lambda p: p.write_text("no program\n"), "Exec format error")

    def test_a_missing_postalias_is_named_by_the_shell(self):
        remove(POSTALIAS)
        run = self.world.run()
        pattern = re.compile(r"\AFatal error: torva::SystemError\(unable to re-index system alias map: [^\n]+\)\n\Z")
        self.assertFatal(run, pattern)
        said = run.err[: run.err.index("Fatal error: ")]
        self.assertRegex(said, re.escape(until(" verifying that system aliases configured properly")) +
                         r"sh: [^\n]*/usr/sbin/postalias[^\n]*not found\n\Z")

    def test_programs_are_not_looked_up_in_the_path(self):
        elsewhere = CAPTURE / "bin"
        elsewhere.mkdir()
        os.symlink("/bin/false", elsewhere / "postconf")
        os.symlink("/bin/false", elsewhere / "postmap")
        run = self.world.run(env={"PATH": f"{elsewhere}:/usr/sbin:/usr/bin:/sbin:/bin"})
        self.assertCompleted(run)
        run = self.world.run(env={"PATH": "/usr/bin:/bin"})
        self.assertCompleted(run)


class DirectoryTest(RunTest):
    def test_every_missing_directory_on_the_way_is_made(self):
        self.world.mount_small("/var/spool", "size=64k", keep=False)
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)
        self.assertEqual(sorted(os.listdir(TORVA)), sorted(TABLES))

    def test_a_directory_that_is_there_keeps_what_else_is_in_it(self):
        TORVA.mkdir(mode=0o750, parents=True)
        (TORVA / "non_auth.re").write_text("mine\n")
        run = self.world.run()
        self.assertEqual(run.status, 0)
        self.assertEqual((TORVA / "non_auth.re").read_text(), "mine\n")
        self.assertEqual(TORVA.stat().st_mode & 0o7777, 0o750)

    def test_a_file_in_its_place_ends_the_run(self):
        for make in (TORVA.touch, lambda: os.mkfifo(TORVA), lambda: TORVA.symlink_to("/etc/passwd")):
            self.world.reset()
            make()
            run = self.world.run()
            pattern = (r'\AFatal error: boost::filesystem::filesystem_error\(boost::filesystem::create_directories: '
                       r'(File exists|Not a directory): "/var/spool/postfix/torva"\)\n\Z')
            self.assertFatal(run, re.compile(pattern), said=until("Creating Torva Postfix databases directory"))
            self.assertEqual(run.commands, ["/usr/sbin/postconf -h config_directory"])
            remove(TORVA)

    def test_a_configuration_directory_that_may_not_be_entered_ends_the_run_at_master_cf(self):
        POSTFIX.chmod(0)
        run = self.world.run(preexec_fn=as_mortal)
        header = "Configuring Postfix services/modules for Torva:\n"
        text = transcript()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, f"unable to open {MASTER_CF}"),
                         said=text[: text.index(header) + len(header)])

    def test_a_directory_of_tables_that_may_not_be_entered_ends_the_run_at_the_first(self):
        TORVA.mkdir(mode=0, parents=True)
        run = self.world.run(preexec_fn=as_mortal)
        self.assertFatal(run, re.compile(r"\AFatal error: [^\n]+\n\Z"), said=until(" Virtual Domains DB"))
        self.assertEqual(os.listdir(TORVA), [])

    def test_a_link_to_a_directory_is_a_directory(self):
        elsewhere = CAPTURE / "tables"
        elsewhere.mkdir()
        TORVA.symlink_to(elsewhere)
        self.assertEqual(self.world.run().status, 0)
        self.assertEqual(sorted(os.listdir(elsewhere)), sorted(TABLES))

    def test_a_table_source_that_is_a_directory_ends_the_run(self):
        (TORVA / "virtual").mkdir(parents=True)
        run = self.world.run()
        self.assertFatal(run, re.compile(r"\AFatal error: "), said=until(" Virtual Aliases DB"))
        self.assertTrue((TORVA / "virtual").is_dir())

    def test_a_table_source_that_is_a_link_is_replaced_and_its_target_kept(self):
        TORVA.mkdir(parents=True)
        target = CAPTURE / "precious"
        target.write_text("precious\n")
        (TORVA / "virtual").symlink_to(target)
        self.assertCompleted(self.world.run())
        self.assertEqual(target.read_text(), "precious\n")
        self.assertFalse((TORVA / "virtual").is_symlink())


class FullDiskTest(RunTest):
    def fill(self, directory, free):
        """Leaves this many bytes on a small file system; the filler is not the program's."""
        space = os.statvfs(directory)
        (directory / "filler").write_bytes(b"\0" * (space.f_bfree * space.f_bsize - free))
        self.world.extra_in_etc = {"filler"}

    def test_a_master_cf_that_does_not_fit_leaves_the_old_one(self):
        big = golden("master.cf.before") + b"# a long comment, many times\n" * 600
        MASTER_CF.write_bytes(big)
        self.world.mount_small(POSTFIX, "size=64k")
        # The first two leave nothing of the file, the third all but its end.
        for free in (0, 4096, 16384):
            with self.subTest(free=free):
                self.fill(POSTFIX, free)
                inode = MASTER_CF.stat().st_ino
                run = self.world.run()
                self.assertFatal(run, fatal(SYSTEM_ERROR, "write: No space left on device"), said=until(LAST_STEP))
                self.assertEqual(MASTER_CF.read_bytes(), big)
                self.assertEqual(MASTER_CF.stat().st_ino, inode)
                self.assertEqual(self.world.param("virtual_transport"), "torva_virtual")
                remove(POSTFIX / "filler")
        self.world.run()
        self.assertIn(b"torva_virtual", MASTER_CF.read_bytes())

    def test_no_room_for_one_more_file_leaves_the_old_master_cf(self):
        self.world.mount_small(POSTFIX, "size=64k,nr_inodes=3")
        run = self.world.run()
        self.assertFatal(run, fatal(SYSTEM_ERROR, "mkstemp() failed: : No space left on device"), said=until(LAST_STEP))
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))

    def test_a_disabled_store_that_does_not_fit_stays_as_it_was(self):
        text = "tlsmgr unix - - y 77? 3 old\n" + "# a long comment, many times\n" * 600
        self.world.mount_small(TORVA, "size=64k")
        (TORVA / "master.cf.disabled").write_text(text)
        self.fill(TORVA, 4096)
        run = self.world.run()
        self.assertEqual(run.status, 1)
        self.assertTrue(run.err.endswith(fatal(SYSTEM_ERROR, "write: No space left on device")), run.err)
        self.assertEqual((TORVA / "master.cf.disabled").read_text(), text)
        self.assertEqual(sorted(os.listdir(TORVA)), sorted(TABLES + ["filler", "master.cf.disabled"]))
        # The store must be on disk before master.cf is replaced.
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))

    def test_no_room_for_a_table_leaves_the_old_one(self):
        self.world.mount_small(TORVA, "size=64k,nr_inodes=2")
        (TORVA / "virtual_domains").write_text("old\n")
        run = self.world.run()
        self.assertFatal(run, re.compile(r"\AFatal error: [^\n]+\n\Z"), said=until(" Virtual Domains DB"))
        self.assertEqual((TORVA / "virtual_domains").read_text(), "old\n")
        self.assertEqual(os.listdir(TORVA), ["virtual_domains"])

    def test_a_read_only_file_system_leaves_everything(self):
        self.world.mount_small(POSTFIX, "size=64k")
        os.system(f"mount -o remount,ro {POSTFIX}")
        run = self.world.run()
        self.assertFatal(run, fatal(SYSTEM_ERROR, "mkstemp() failed: : Read-only file system"), said=until(LAST_STEP))

    def test_a_read_only_directory_of_tables_ends_the_run_at_the_first(self):
        self.world.mount_small(TORVA, "size=64k")
        os.system(f"mount -o remount,ro {TORVA}")
        run = self.world.run()
        self.assertFatal(run, re.compile(r"\AFatal error: [^\n]+\n\Z"), said=until(" Virtual Domains DB"))
        self.assertEqual(os.listdir(TORVA), [])

    def test_a_refused_rename_leaves_the_old_file_and_names_both_paths(self):
        # A file that something is mounted on cannot be renamed over.
        kept = CAPTURE / "mounted"
        kept.write_bytes(golden("master.cf.before"))
        self.world.bind(kept, MASTER_CF)
        run = self.world.run()
        pattern = (r'\AFatal error: boost::filesystem::filesystem_error\(rename: Device or resource busy: '
                   r'"/etc/postfix/[^/"]+", "/etc/postfix/master\.cf"\)\n\Z')
        self.assertFatal(run, re.compile(pattern), said=until(LAST_STEP))
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))


class LockDirectoryTest(RunTest):
    def test_a_missing_lock_directory_is_made(self):
        self.assertFalse(LOCKS.exists())
        self.assertCompleted(self.world.run())
        names = {"_etc_postfix_main.cf", "_etc_postfix_master.cf"} | {f"_var_spool_postfix_torva_{t}" for t in TABLES}
        self.assertEqual(set(os.listdir(LOCKS)), names)

    def test_a_file_in_its_place_ends_the_run_at_the_first_table(self):
        LOCKS.write_text("")
        run = self.world.run()
        said = (f'Unable to open file "{LOCKS}/_var_spool_postfix_torva_virtual_domains": Not a directory.\n'
                "System error 20: Not a directory\n")
        self.assertFatal(run, fatal(SYSTEM_ERROR, "lock() failed: Not a directory"),
                         said=until(" Virtual Domains DB") + said)
        self.assertEqual(run.out, said + fatal(SYSTEM_ERROR, "lock() failed: Not a directory"))

    def test_a_lock_directory_that_cannot_be_made_ends_the_run_at_the_first_table(self):
        lock = Path("/var/lock")
        target = os.readlink(lock)
        lock.unlink()
        lock.symlink_to("/nowhere/at/all")
        try:
            run = self.world.run()
        finally:
            lock.unlink()
            lock.symlink_to(target)
        self.assertFatal(run, fatal("torva::ExSystemError<2>", "lock() failed: No such file or directory"))
        self.assertEqual(run.commands, [str(c) for c in commands("first_run.commands")[:1]])


if __name__ == "__main__":
    main()
