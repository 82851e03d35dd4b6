"""Hosts as they are found: services that the program does not parse, other file systems,
full disks, hard links, many services, odd surroundings."""

import os
import shutil
import subprocess
from pathlib import Path

import ctlworld
import pairs
from ctlworld import (BACKUPS, MAIN_CF, MASTER_CF, POSTFIX, TABLES, AroundARunTest, CtlTest, ctl,
                      name_hashed_aliases, program, remove, run, tree, write)


def add(path, text):
    write(path, Path(path).read_bytes() + text.encode())


class FindingsTest(CtlTest):
    def setUp(self):
        super().setUp()
        ctlworld.make_good_host()

    def found(self, subject):
        return [f for f in ctl("check", "--json").findings("warning", "stop") if f["subject"] == subject]

    def test_advice_about_mail_to_root_holds_after_a_run(self):
        pairs.both(pairs.MAIN, pairs.SMTP + pairs.SERVICES)
        run("sh", "-c", self.found("mydestination")[0]["action"])
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(self.found("mydestination"), [])

    def test_filter_on_the_port_of_the_panel_is_told_until_it_has_another(self):
        add(MASTER_CF, "127.0.0.1:10025 inet n - n - - smtpd\n  -o content_filter=\n")
        told = set()
        for verb in ("check", "preview", "apply", "check"):
            found = [f for f in ctl(verb, "--json").findings("warning") if "127.0.0.1:10025/inet" in f["text"]]
            told.update((f["text"], f["action"]) for f in found)
            self.assertTrue(found, verb)
            self.assertEqual(len(told), 1, verb)
        run("sh", "-c", found[0]["action"].split("; ")[0])
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(self.found("service"), [])
        self.assertEqual(run("postconf", "-M", "127.0.0.1:10025/inet").split()[7], "spawn")
        self.assertIn("content_filter=", run("postconf", "-M", "127.0.0.1:10125/inet"))

    def test_check_names_the_host_as_preview_does(self):
        pairs.both(pairs.MAIN.replace("mail.example.net", "mail"), pairs.SMTP + pairs.SERVICES)
        texts = {tuple(f["text"] for f in ctl(verb, "--json").findings("warning") if f["subject"] == "mydestination")
                 for verb in ("check", "preview")}
        self.assertEqual(len(texts), 1, texts)
        self.assertIn("mailer-daemon@sandbox.example.net goes to", *texts.pop())

    def test_master_cf_that_postfix_refuses_is_told_in_its_words(self):
        add(MASTER_CF, "a unix - - y\n")
        before = tree()
        finding = self.found("master.cf")
        self.assertIn("bad field count", finding[0]["text"])
        self.assertStatus(1, ctl("apply"))
        self.assertSame(before, "stopped")


class ShelterTest(CtlTest):
    LINES = [
        "[::1]:587 inet n - y - - smtpd\n  -o syslog_name=six\n",
        "SMTPS inet n - y - - smtpd -o smtpd_tls_wrappermode=yes\n",
        "a@b+c unix - - y - - smtp\n",
        "dir/name unix - - y - - smtp\n",
        "behind unix - - y - - smtp # comment\n",
        "options unix - - y - - smtp\n  -o a=b # comment\n# between\n  -o c=d\n",
        "bytes unix - - y - - smtp -o syslog_name=caf\u00e9\n",
        "sub pass - - y - - smtpd\n",
        "postlog2 unix-dgram n - n - 1 postlogd\n",
    ]

    def test_comes_back_in_place_byte_for_byte(self):
        write(MASTER_CF, "# head\n" + pairs.SMTP + "".join(
            line + service + "\n" for line, service in zip(self.LINES, pairs.SERVICES.splitlines())) +
            "\n".join(pairs.SERVICES.splitlines()[len(self.LINES):]) + "\n" + pairs.POSTLOG)
        before = tree()
        text = MASTER_CF.read_text()
        self.assertStatus(0, ctl("check"))
        self.assertStatus(0, ctl("apply"))
        after = MASTER_CF.read_text()
        self.assertNotIn("sheltered by", after)
        # Line by line, except for what the run replaces and the old pickup.
        kept = [line for line in text.splitlines() if not line.startswith(("smtp      inet", "pickup"))]
        self.assertEqual([line for line in after.splitlines() if line in kept], kept)
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")

    def test_limits_beyond_32_bits(self):
        add(MASTER_CF, "big unix - - y 4294967296 9999999999 smtp\n")
        if subprocess.run(["postconf", "-M"], stdout=subprocess.DEVNULL).returncode != 0:
            self.skipTest("this Postfix refuses them, too")
        self.assertStatus(0, ctl("apply"))
        self.assertIn("big unix - - y 4294967296 9999999999 smtp\n", MASTER_CF.read_text())

    def test_entry_that_the_run_replaces_stays_as_a_comment(self):
        write(MASTER_CF, MASTER_CF.read_text().replace("       smtpd\n", "       smtpd -o syslog_name=\u00e9\n", 1))
        line = next(line for line in MASTER_CF.read_text().splitlines() if "\u00e9" in line)
        outcome = self.assertStatus(0, ctl("apply", "--json"))
        self.assertIn("#" + line, MASTER_CF.read_text().splitlines())
        self.assertIn("smtp/inet: replaced by the run", " ".join(f["text"] for f in outcome.findings("warning")))

    def test_entry_that_the_run_would_only_add_stays(self):
        write(MASTER_CF, MASTER_CF.read_text().replace(" tlsmgr\n", " tlsmgr # mine\n"))
        self.assertStatus(0, ctl("apply"))
        lines = [line for line in MASTER_CF.read_text().splitlines() if line.startswith("tlsmgr")]
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].endswith("# mine"))


class PrivateCopyTest(CtlTest):
    def setUp(self):
        super().setUp()
        run("mount", "-t", "tmpfs", "none", "/home")
        self.addCleanup(run, "umount", "/home")
        write("/home/list/aliases", "list: somebody\n")

    def home(self):
        return sorted((str(path), path.lstat().st_mtime_ns) for path in Path("/home").rglob("*"))

    def test_preview_writes_nothing_on_another_file_system(self):
        write("/home/list/more", "more: somebody\n")
        for maps, database in (("hash:/etc/aliases hash:/home/list/aliases,hash:/home/list/more", "hash:/etc/aliases"),
                               ("$alias_database", "hash:/home/list/aliases")):
            with self.subTest(maps):
                run("postconf", "-e", f"alias_maps = {maps}", f"alias_database = {database}")
                before = self.home(), tree()
                self.assertIn("exit status of torva-postfix-setup", ctl("preview").out)
                self.assertEqual(before[0], self.home())
                self.assertSame(before[1], "after preview")

    def test_tool_that_writes_elsewhere_gets_an_error(self):
        program(ctlworld.TOOL, "#!/bin/sh\necho x >/home/written && exit 3\nexit 0\n")
        self.assertStatus(0, ctl("preview"))
        self.assertFalse(Path("/home/written").exists())

    def test_what_the_run_builds_elsewhere_is_taken_back(self):
        run("postconf", "-e", "alias_maps = hash:/etc/aliases hash:/home/list/aliases")
        home, before = [path for path, _ in self.home()], tree()
        self.assertStatus(0, ctl("apply"))
        self.assertIn("/home/list/aliases.db", [path for path, _ in self.home()])
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(home, [path for path, _ in self.home()])
        self.assertSame(before, "after rollback")

    def test_links_that_an_owner_plants_before_a_rollback_are_not_followed(self):
        victim = Path("/run/victim")
        victim.write_text("mine\n")
        victim.chmod(0o600)
        self.addCleanup(remove, victim)
        run("chown", "-R", "nobody", "/home/list")
        run("postconf", "-e", "alias_maps = hash:/etc/aliases hash:/home/list/aliases")
        before = tree()
        home = {path: ctlworld.described(path) for path in Path("/home").rglob("*")}
        self.assertStatus(0, ctl("apply"))
        for name in ("aliases", "aliases.db", "aliases.torva-new", "aliases.torva-old", "__db.aliases.db"):
            remove(f"/home/list/{name}")
            os.symlink(victim, f"/home/list/{name}")
        self.assertStatus(0, ctl("rollback", "--force"))
        self.assertEqual((victim.read_text(), victim.stat().st_mode & 0o777, victim.stat().st_uid), ("mine\n", 0o600, 0))
        self.assertEqual(home, {path: ctlworld.described(path) for path in Path("/home").rglob("*")})
        self.assertSame(before, "after rollback")

    def test_fifo_among_the_files_blocks_nothing(self):
        TABLES.mkdir()
        os.mkfifo(TABLES / "fifo", 0o600)
        os.mkfifo("/home/list/fifo")
        run("postconf", "-e", "alias_maps = hash:/home/list/fifo")
        before = tree()
        outcome = self.assertStatus(1, ctl("check", "--json", timeout=60))
        self.assertIn("/home/list/fifo is not a regular file", outcome.findings("stop")[0]["text"])
        self.assertIn("/home/list/fifo is not a regular file", self.assertStatus(1, ctl("preview", timeout=60)).err)
        self.assertSame(before, "after check and preview")
        run("postconf", "-e", "alias_maps = hash:/etc/aliases")
        before = tree()
        self.assertStatus(0, ctl("apply", timeout=60))
        self.assertStatus(0, ctl("rollback", timeout=60))
        self.assertSame(before, "after rollback")


class RoomTest(AroundARunTest):
    def test_check_tells_what_is_free(self):
        told = [f["text"] for f in ctl("check", "--json").findings("ok") if f["subject"] == "room"]
        self.assertRegex(told[0], r"/var/backups/torva-postfix: \d+ MB, \d+ inodes; .*/etc/postfix: \d+ MB")

    def test_too_little_room_is_told(self):
        BACKUPS.mkdir(parents=True)
        run("mount", "-t", "tmpfs", "-o", "size=64k,mode=700", "none", BACKUPS)
        self.addCleanup(run, "umount", BACKUPS)
        outcome = self.assertStatus(1, ctl("check", "--json"))
        self.assertEqual([f["subject"] for f in outcome.findings("stop")], ["room"])

    def test_metadata_is_restored_when_the_disk_is_full(self):
        run("sh", "-c", "cp -a /etc/postfix /run/etc-copy && mount -t tmpfs -o size=2m none /etc/postfix &&"
            " cp -a /run/etc-copy/. /etc/postfix/")
        self.addCleanup(remove, "/run/etc-copy")
        self.addCleanup(run, "umount", "/etc/postfix")
        before = tree()
        self.assertStatus(0, ctl("apply"))
        for name in ("main.cf", "master.cf"):
            write(POSTFIX / name, Path("/run/etc-copy", name).read_bytes(), 0o600)
        run("sh", "-c", "cat /dev/zero >/etc/postfix/filler; :")
        self.assertStatus(0, ctl("rollback", "--force"))
        remove("/etc/postfix/filler")
        self.assertSame(before, "after rollback")

    def test_other_names_of_a_file_keep_what_they_have(self):
        text = MAIN_CF.read_bytes() + b"relayhost ="
        write(MAIN_CF, text)
        other = POSTFIX / "main.cf.other"
        os.link(MAIN_CF, other)
        os.link(MASTER_CF, POSTFIX / "master.cf.other")
        kept = (other.stat().st_mtime_ns, (POSTFIX / "master.cf.other").read_bytes())
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(other.read_bytes(), text)
        self.assertEqual((other.stat().st_mtime_ns, (POSTFIX / "master.cf.other").read_bytes()), kept)
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual(MAIN_CF.read_bytes(), text)

    def test_shared_index_stays_shared_during_a_run_and_rollback_leaves_the_other_name_alone(self):
        index, other = Path("/etc/aliases.db"), Path("/etc/aliases-shared.db")
        name_hashed_aliases()
        run("postalias", "hash:/etc/aliases")
        os.link(index, other)
        self.addCleanup(remove, other)
        before = index.read_bytes()
        self.assertStatus(0, ctl("apply"))
        self.assertTrue(index.samefile(other))
        after = other.read_bytes()
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual((index.read_bytes(), other.read_bytes()), (before, after))


class SurroundingsTest(CtlTest):
    def test_check_of_three_thousand_services_ends(self):
        add(MASTER_CF, "".join(f"svc{number} unix - - y - - smtp\n" for number in range(3000)))
        self.assertStatus(0, ctl("check", timeout=120)) # one postconf for each would take an hour

    def test_preview_of_many_services_has_them_read_once_and_shows_what_apply_does(self):
        add(MAIN_CF, "mine = yes\n")
        add(MASTER_CF, "".join(f"svc{number} unix - - y - - smtp\n  -o syslog_name=svc{number}\n" for number in range(260)) +
            "user unix - - y - - smtp -o smtp_fallback_relay=$mine\n")
        kept = Path("/run/preview")
        self.addCleanup(remove, kept)
        self.replace_program("/usr/sbin/postconf", """#!/bin/sh
case $1 in
    -c | -d | -m) ;; # another directory, or no file at all
    *)
        if test "$(grep -c ^svc /etc/postfix/master.cf)" = 260; then
            echo "$@" >>/run/asked
            test "$(wc -l </run/asked)" -le 1 || { cat /run/asked >&2; exit 1; }
        fi
        ;;
esac
exec $REAL "$@"
""")
        before = tree()
        outcome = self.assertStatus(0, ctl("--json", "preview", "--keep", str(kept)))
        self.assertSame(before, "after preview")
        verdict = [o for o in outcome.objects() if o.get("change") == "postfix-check"]
        self.assertEqual([(o["status"], o["text"]) for o in verdict], [(0, "")])
        self.assertNotIn("unused parameter", outcome.err)
        shutil.copy2("/usr/sbin/postconf.real", "/usr/sbin/postconf")
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(MASTER_CF.read_bytes(), (kept / "etc/postfix/master.cf").read_bytes())
        self.assertEqual(MAIN_CF.read_bytes(), (kept / "etc/postfix/main.cf").read_bytes())

    def test_preview_tells_what_postfix_refuses_among_many_services(self):
        add(MASTER_CF, "".join(f"svc{number} unix - - y - - smtp\n" for number in range(260)) + "bad unix - - y - -\n")
        outcome = self.assertStatus(1, ctl("--json", "preview"))
        self.assertEqual([f["subject"] for f in outcome.findings("stop")], ["master.cf"])
        verdict = [o for o in outcome.objects() if o.get("change") == "postfix-check"]
        self.assertNotEqual(verdict[0]["status"], 0)
        self.assertIn("bad", verdict[0]["text"])

    def test_asks_postfix_six_questions_and_about_services_once(self):
        real = Path("/usr/sbin/postconf.real")
        os.rename("/usr/sbin/postconf", real)
        self.addCleanup(os.rename, real, "/usr/sbin/postconf")
        program("/usr/sbin/postconf", f'#!/bin/sh\necho "$@" >>/run/asked\nexec {real} "$@"\n')
        self.addCleanup(remove, "/run/asked")
        self.assertStatus(0, ctl("check"))
        asked = Path("/run/asked").read_text().splitlines()
        whole = [line for line in asked if not line.startswith(("-c ", "-d", "-m"))]
        self.assertEqual(whole, ["-M"])
        self.assertEqual(len(asked), 6, asked)

    def test_tells_what_it_waits_for(self):
        real = Path("/usr/sbin/postconf.real")
        os.rename("/usr/sbin/postconf", real)
        self.addCleanup(os.rename, real, "/usr/sbin/postconf")
        program("/usr/sbin/postconf", f'#!/bin/sh\ntest "$1" != -M || sleep 1.5\nexec {real} "$@"\n')
        outcome = self.assertStatus(0, ctl("check"))
        self.assertIn("waiting for /usr/sbin/postconf -M\n", outcome.err)

    def test_lines_fit_on_80_columns(self):
        for words in (["check"], ["--help"], *([verb, "--help"] for verb in
                      ("check", "preview", "apply", "diff", "rollback", "backups"))):
            for line in ctl(*words).out.splitlines():
                self.assertTrue(len(line) <= 80 or " " not in line.strip(), line)

    def test_unset_home_other_umask_and_locale_and_mail_config(self):
        before = tree()
        odd = ["env", "-i", "LC_ALL=de_DE.UTF-8", "COLUMNS=40", "sh", "-c", "umask 077; exec \"$@\"", "sh"]
        self.assertStatus(0, ctl("apply", argv=odd))
        self.assertEqual(oct((TABLES / "virtual.db").stat().st_mode & 0o777), oct(0o644))
        self.assertStatus(0, ctl("rollback", argv=odd))
        self.assertSame(before, "after rollback")

    def test_mail_config_names_another_directory(self):
        run("cp", "-a", "/etc/postfix", "/etc/postfix-other")
        self.addCleanup(remove, "/etc/postfix-other")
        run("postconf", "-e", "alternate_config_directories = /etc/postfix-other")
        other = ["env", "MAIL_CONFIG=/etc/postfix-other"]
        write("/etc/postfix-other/main.cf", Path("/etc/postfix-other/main.cf").read_text() + "broken\n")
        outcome = self.assertStatus(1, ctl("check", "--json", argv=other))
        self.assertIn("/etc/postfix-other/main.cf", outcome.findings("stop")[0]["text"])

    def test_hostile_lock_directory_is_refused_and_a_fifo_blocks_nothing(self):
        directory = Path("/run/lock/torva-postfix")
        victim = Path("/run/victim")
        victim.write_text("mine\n")
        self.addCleanup(remove, victim)

        def link():
            directory.mkdir(mode=0o755)
            os.symlink(victim, directory / "lock")

        def fifo():
            directory.mkdir(mode=0o700)
            os.mkfifo(directory / "lock")

        def wide():
            directory.mkdir()
            directory.chmod(0o777)

        def linked():
            os.symlink("/run/elsewhere", directory)

        for prepare in (link, fifo, wide, linked):
            with self.subTest(prepare.__name__):
                remove(directory)
                prepare()
                before = tree()
                self.assertStatus(1, ctl("apply", timeout=60))
                self.assertEqual(victim.read_text(), "mine\n")
                self.assertSame(before, prepare.__name__)
        remove(directory)
        directory.mkdir(mode=0o755)
        self.assertStatus(0, ctl("apply"))
        self.assertEqual(oct(directory.stat().st_mode & 0o777), oct(0o700))


if __name__ == "__main__":
    ctlworld.main()
