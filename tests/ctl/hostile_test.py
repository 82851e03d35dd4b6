"""What other accounts put where the companion looks: "postfix" in the tables directory,
customers where root has files kept. None of it may hang it, crash it, leave or print what
only root may read, or keep a failed run from being taken back."""

import fcntl
import os
import resource
import shlex
import signal
import subprocess
import sys
from pathlib import Path

import ctlworld
from ctlworld import (BACKUPS, CTL, MAIN_CF, TABLES, TOOL, ctl, program, remove, run, tree, wait_until, write)
from hostileworld import (CUSTOMER, INDEX, LIMIT, POSTFIX_USER, STORE, HostileTest, as_account, as_postfix,
                          become, bounded, plant_deep, plant_sparse)


class IndexTest(HostileTest):
    def plant(self, make):
        as_postfix(INDEX.unlink)
        make()

    def test_fifo_in_place_of_an_index_blocks_no_verb(self):
        self.configure()
        self.plant(lambda: as_postfix(lambda: os.mkfifo(INDEX, 0o666)))
        before = tree()
        for verb, status in ("check", 1), ("diff", 2), ("apply", 1), ("rollback", 1):
            with self.subTest(verb):
                outcome = self.assertStatus(status, bounded(verb))
                self.assertIn("planted", " ".join((outcome.out + outcome.err).split()))
        bounded("preview")
        self.assertSame(before, "nothing was done")
        self.assertStatus(0, bounded("rollback", "--force"))

    def test_held_lock_of_an_index_ends_in_words(self):
        self.configure()
        TABLES.chmod(0o775)  # as before there is a mail-authentication database
        holder = os.fork()
        if holder == 0:
            become(CUSTOMER, CUSTOMER)
            held = os.open(INDEX, os.O_RDONLY)
            fcntl.flock(held, fcntl.LOCK_EX)
            signal.pause()
        self.addCleanup(os.waitpid, holder, 0)
        self.addCleanup(os.kill, holder, signal.SIGKILL)
        wait_until(lambda: subprocess.call(["flock", "--nonblock", INDEX, "true"]) != 0, "the lock is held")
        for verb, status in ("check", 1), ("diff", 2):
            outcome = self.assertStatus(status, bounded(verb))
            self.assertIn(f"{INDEX} is locked", " ".join((outcome.out + outcome.err).split()))

    def test_records_of_a_planted_index_do_not_get_into_a_table(self):
        secret = Path("/etc/postfix/secret")
        write(secret, "mail.example.net user:password\n", 0o600)
        run("postmap", f"hash:{secret}")
        for plant in (lambda: as_postfix(lambda: INDEX.symlink_to(f"{secret}.db")),
                      lambda: os.link(f"{secret}.db", INDEX)):  # without fs.protected_hardlinks
            self.configure()
            if Path(f"{secret}.db").stat().st_dev != TABLES.stat().st_dev and plant.__code__.co_names[0] == "os":
                continue
            self.plant(plant)
            self.assertStatus(1, bounded("apply"))
            self.assertNotIn("password", "".join(
                run("postmap", "-s", f"hash:{path.with_suffix('')}") for path in TABLES.glob("*.db")
                if path.is_file() and not path.is_symlink() and path.stat().st_nlink == 1))
            self.assertStatus(0, bounded("rollback", "--force"))

    def test_administrators_link_is_followed(self):
        self.assertStatus(0, ctl("apply"))
        run("postmap", "-r", "-i", f"hash:{TABLES}/virtual", input=None, check=False)
        elsewhere = Path("/var/spool/postfix/virtual-elsewhere.db")
        os.rename(INDEX, elsewhere)
        self.addCleanup(remove, elsewhere)
        os.chown(TABLES, 0, 0)
        INDEX.symlink_to(elsewhere)
        self.assertStatus(0, bounded("check"))


class StoreTest(HostileTest):
    def stop(self, outcome):
        self.assertStatus(1, outcome)
        return [f["text"] for f in outcome.findings("stop") if f["subject"] == "master.cf"][0]

    def test_nothing_of_what_a_link_in_its_place_leads_to_is_printed(self):
        self.configure()
        as_postfix(lambda: STORE.symlink_to(self.victim))
        outcome = bounded("check", "--json")
        self.assertIn(str(STORE), self.stop(outcome))
        self.assertNotIn("secret", outcome.out)

    def test_file_of_another_account_is_not_read(self):
        self.configure()
        as_postfix(lambda: plant_sparse(STORE))
        memory = lambda: resource.setrlimit(resource.RLIMIT_AS, (2 << 30, 2 << 30))
        self.assertIn(str(STORE), self.stop(bounded("check", "--json", preexec_fn=memory)))

    def test_own_store_is_read(self):
        self.configure()
        write(STORE, "old unix - - n - - pipe user=nobody\n")
        self.assertStatus(0, bounded("check"))
        write(STORE, "old unix - - Y - - pipe user=nobody\n")
        self.assertIn("is not parsed", self.stop(bounded("check", "--json")))


class BackupTest(HostileTest):
    def test_file_that_is_all_hole_is_told_and_not_read(self):
        self.configure()
        as_postfix(plant_sparse)
        before = sorted(os.listdir(BACKUPS))
        for words, status in (["check"], 1), (["diff"], 2), (["apply"], 1), (["rollback", "--force"], 1):
            with self.subTest(words):
                outcome = self.assertStatus(status, bounded(*words))
                self.assertIn(f"{TABLES}/big", " ".join((outcome.out + outcome.err).split()))
        self.assertEqual(before, sorted(os.listdir(BACKUPS)))

    def test_backup_that_does_not_fit_writes_nothing(self):
        self.configure()
        # Not a hole, so that it is copied, and more than there is room for.
        run("mount", "-t", "tmpfs", "-o", "size=8m", "none", BACKUPS.parent)
        self.addCleanup(run, "umount", BACKUPS.parent)
        self.assertStatus(0, ctl("apply"))
        with open(TABLES / "much", "wb") as file:
            file.write(os.urandom(12 << 20))
        outcome = self.assertStatus(1, bounded("rollback", "--force"))
        self.assertIn("MB", outcome.out)
        free = os.statvfs(BACKUPS)
        self.assertGreater(free.f_bavail * free.f_frsize, 7 << 20, "what was written was not removed")

    def test_deep_directory_crashes_nothing(self):
        self.configure()
        as_postfix(plant_deep)
        many = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        for words, status in (["check"], 1), (["diff"], 2), (["rollback", "--force"], 1):
            for how in {}, {"preexec_fn": many}:
                with self.subTest(words):
                    self.assertStatus(status, bounded(*words, **how))
        run("rm", "-rf", TABLES / "d")
        self.assertStatus(0, bounded("rollback", "--force"))

    def fail_while(self, text):
        """An apply whose run plants, through the text, and fails."""
        self.give_away()
        write(TABLES / "kept", "of the panel\n")
        program(TOOL, f"#!/bin/sh\npostconf -e virtual_transport=torva_virtual\n{text}\nexit 1\n")
        before = tree()
        outcome = self.assertStatus(1, bounded("apply"))
        self.assertIn("everything is as it was before", outcome.out)
        self.assertSame(before, "taken back")

    def test_failed_run_is_taken_back_over_what_cannot_be_read(self):
        this = f"import sys; sys.path.insert(0, {str(Path(__file__).parent)!r}); import hostile_test as t; "
        for planting in "t.plant_sparse", "t.plant_deep":
            with self.subTest(planting):
                self.fail_while(shlex.join([sys.executable, "-B", "-c", f"{this}t.as_postfix({planting})"]))

    def test_rest_is_taken_back_when_a_directory_of_aliases_leads_elsewhere(self):
        # Otherwise it would be the machine's, which no other test may see change.
        run("mount", "-t", "tmpfs", "none", "/srv")
        self.addCleanup(run, "umount", "--lazy", "/srv")
        data = Path("/srv/list/data")
        self.addCleanup(remove, data.parent)
        write(data / "aliases", "list: somebody\n")
        run("postconf", "-e", f"alias_maps=hash:/etc/aliases, hash:{data}/aliases")
        self.give_away()
        ctlworld.settle(MAIN_CF)
        before = tree()
        swap = f"mv {data} {data.parent}/aside; ln -s /etc {data}"
        write(TOOL, f"#!/bin/sh\npostconf -e virtual_transport=torva_virtual\n{swap}\nexit 1\n", 0o755)
        outcome = self.assertStatus(2, bounded("apply"))
        self.assertIn(str(data), outcome.out)
        changed = ctlworld.difference(before, tree())
        self.assertEqual([path for path in changed if not path.startswith(("/srv/list", str(TOOL)))], [])
        data.unlink()
        (data.parent / "aside").rename(data)
        self.assertStatus(0, bounded("rollback"))

    def test_failed_run_is_taken_back_while_the_account_goes_on(self):
        go, gone_on = Path("/run/go"), TABLES / "n0"
        self.addCleanup(remove, go)
        attacker = os.fork()
        if attacker == 0:
            become(POSTFIX_USER.pw_uid, POSTFIX_USER.pw_gid)
            while not go.exists():
                pass
            os.chdir(TABLES)
            number = 0
            while True:
                try:
                    os.close(os.open(f"n{number % 100}", os.O_CREAT | os.O_WRONLY, 0o600))
                except OSError:
                    pass
                number += 1
        try:
            self.fail_while(f"touch {go}; while [ ! -e {gone_on} ]; do :; done")
        finally:
            os.kill(attacker, signal.SIGKILL)
            os.waitpid(attacker, 0)


class KeepTest(HostileTest):
    def setUp(self):
        super().setUp()
        self.home = self.directory_of_customer("/run/customer")

    def test_directory_of_another_account_is_refused(self):
        kept = self.home / "kept"
        as_account(kept.mkdir, CUSTOMER, CUSTOMER)
        outcome = self.assertStatus(1, bounded("preview", "--keep", str(kept)))
        self.assertIn(str(kept), outcome.err)
        self.assertEqual(os.listdir(kept), [])

    def test_swapped_directory_gets_nothing(self):
        kept, aside = self.home / "kept", self.home / "aside"
        # The tool's part of the preview is when the customer acts.
        program(TOOL, "#!/bin/sh\npostconf -e virtual_transport=torva_virtual\nsleep 1\n")
        before = tree()
        process = subprocess.Popen([CTL, "preview", "--keep", str(kept)], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(kept.exists, "the directory is there")

        def swap():
            kept.rename(aside)
            kept.symlink_to("/")
        as_account(swap, CUSTOMER, CUSTOMER)
        self.assertEqual(process.wait(), 0)
        self.assertSame(before, "after the preview")
        self.assertIn("torva_virtual", (aside / "etc/postfix/main.cf").read_text())

    def test_kept_files_are_for_root_alone(self):
        kept = self.home / "one/kept"
        self.assertStatus(0, bounded("preview", "--keep", str(kept)))
        self.assertEqual(oct(kept.stat().st_mode), oct(0o40700))
        self.assertIn("torva_virtual", (kept / "etc/postfix/main.cf").read_text())


class ScratchTest(HostileTest):
    def setUp(self):
        super().setUp()
        self.theirs = self.directory_of_customer("/run/theirs")

    def test_scratch_files_are_not_in_a_directory_of_another_account(self):
        log = Path("/run/postconf.log")
        self.addCleanup(remove, log)
        self.replace_program("/usr/sbin/postconf", f'#!/bin/sh\necho "$@" >>{log}\nexec $REAL "$@"\n')
        self.assertStatus(0, bounded("check", env={**os.environ, "TMPDIR": str(self.theirs)}))
        used = {word for word in log.read_text().split() if word.startswith("/tmp/torva-postfixctl.")}
        self.assertTrue(used, log.read_text())
        self.assertEqual([place for place in used if os.path.exists(place)], [])
        self.assertNotIn(str(self.theirs), log.read_text())
        self.assertEqual(os.listdir(self.theirs), [])

    def test_chroot_is_not_in_a_directory_of_another_account(self):
        before = self.theirs.stat().st_mtime_ns
        outcome = subprocess.run(
            ["setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin", "--",
             ctlworld.INSTALLED / "scripts/sandbox", "--or-chroot", "--", "true"],
            env={**os.environ, "TMPDIR": str(self.theirs)}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True)
        self.assertEqual(outcome.returncode, 0, outcome.stdout)
        self.assertIn("a chroot on a copied tree", outcome.stdout)
        self.assertEqual(before, self.theirs.stat().st_mtime_ns, "the copy was made there")


class OutputTest(HostileTest):
    NAME = "a\x1b]0;title\x07\u009b1m\r\nok       check      fine"

    def test_names_of_files_command_no_terminal(self):
        self.configure()
        as_postfix((TABLES / self.NAME).touch)
        for verb, status in ("diff", 1), ("rollback", 1):
            outcome = self.assertStatus(status, bounded(verb))
            self.assertNotRegex(outcome.out + outcome.err, "[\x00-\x09\x0b-\x1f\x7f-\x9f]")
            self.assertNotIn("\nok ", outcome.out)
            self.assertIn(r"a\x1b]0;title\x07\xc2\x9b1m\x0d\x0aok       check", outcome.out)

    def test_programs_get_the_names_as_they_are(self):
        self.configure()
        as_postfix((TABLES / self.NAME).touch)
        outcome = self.assertStatus(1, bounded("diff", "--json"))
        names = [o["name"].encode("latin-1").decode() for o in outcome.objects()]
        self.assertIn(f"{TABLES}/{self.NAME}", names)
        self.assertNotIn("\x1b", outcome.out)


class CompletionTest(ctlworld.unittest.TestCase):
    def test_name_of_a_directory_is_no_command(self):
        place = Path("/run/odd")
        directory = place / "kept$(touch done)"
        directory.mkdir(parents=True)
        self.addCleanup(remove, place)
        script = ctlworld.CHECKOUT / "ctl/completion/torva-postfixctl"
        # Readline completes only on a terminal; the function stands in for the companion.
        typed = (f". {script}; torva-postfixctl() {{ printf '<%s>\\n' \"$@\" >{place}/words; }}\n"
                 f"torva-postfixctl preview --keep {place}/k\t\nexit\n")
        master, terminal = os.openpty()
        shell = subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], cwd=place, stdin=terminal, stdout=terminal,
                                 stderr=terminal, env={**os.environ, "TERM": "dumb"}, start_new_session=True)
        os.close(terminal)
        os.write(master, typed.encode())
        try:
            while os.read(master, 4096):
                pass
        except OSError:
            pass  # it has ended
        os.close(master)
        shell.wait(LIMIT)
        self.assertFalse((place / "done").exists())
        self.assertEqual((place / "words").read_text(), f"<preview>\n<--keep>\n<{directory}/>\n")


class LockTest(HostileTest):
    def test_lock_file_that_somebody_prepared_is_refused(self):
        directory = Path("/run/lock/torva-postfix")
        victim = Path("/run/lock/victim")
        for make in (lambda lock: os.link(victim, lock), lambda lock: lock.symlink_to(victim), os.mkfifo):
            remove(directory)
            remove(victim)
            write(victim, "root's\n", 0o600)
            directory.mkdir(mode=0o700)  # given to root by then, as systemd-tmpfiles(8) does
            make(directory / "lock")
            outcome = bounded("rollback")
            self.assertNotEqual(outcome.status, 0, outcome)
            self.assertEqual(victim.read_text(), "root's\n")
        remove(victim)
        remove(directory)

    def test_lock_file_of_another_account_is_refused(self):
        directory = Path("/run/lock/torva-postfix")
        directory.mkdir(mode=0o700)
        write(directory / "lock", "process 1, since yesterday,\n", 0o666, (CUSTOMER, CUSTOMER))
        outcome = bounded("rollback")
        self.assertIn("remove it", outcome.out + outcome.err)
        self.assertEqual((directory / "lock").read_text(), "process 1, since yesterday,\n")


if __name__ == "__main__":
    ctlworld.main()
