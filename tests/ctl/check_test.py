"""torva-postfixctl check: what it finds, and that it changes nothing."""

import os
import subprocess
import unittest
from pathlib import Path

import ctlworld
import pairs
from ctlworld import CHECKOUT, CTL, MAIN_CF, MASTER_CF, PANEL, POSTFIX, TABLES, TOOL, CtlTest, ctl, remove, run, tree, write

DAEMONS = Path("/usr/lib/postfix/sbin")


def without(path):
    return lambda: remove(path)


def append(path, text):
    def change():
        write(path, Path(path).read_bytes() + text.encode())
    return change


def main_cf(line):
    return append(MAIN_CF, line + "\n")


def master_cf(line):
    return append(MASTER_CF, line + "\n")


def without_account(database, name):
    def change():
        path = Path("/etc", database)
        path.write_text("".join(line for line in path.read_text().splitlines(True) if not line.startswith(name + ":")))
    return change


def replace_program(path, text):
    """Until the end of the test: a script in place of a program, or nothing."""
    def change():
        kept = Path(f"{path}.replaced")
        os.rename(path, kept)
        if text:
            ctlworld.program(path, text)

        def back():
            remove(path)
            os.rename(kept, path)
        return back
    return change


def without_hash():
    main_cf("alias_maps =\nalias_database =")()
    without_type = replace_program("/usr/sbin/postconf", '#!/bin/sh\n/usr/sbin/postconf.replaced "$@" | grep -vx hash\n')()
    without_tables = replace_program("/usr/sbin/postmap", "#!/bin/sh\necho 'postmap: fatal: unsupported map type: hash' >&2\nexit 1\n")()
    return lambda: (without_type(), without_tables())


def filled_table():
    write(TABLES / "virtual", "a@example.com b@example.com\n")
    run("postmap", f"hash:{TABLES}/virtual")


def empty_store():
    write(TABLES / "master.cf.disabled", "")


def read_only():
    run("mount", "--bind", POSTFIX, POSTFIX)
    run("mount", "-o", "remount,bind,ro", POSTFIX)
    return lambda: run("umount", POSTFIX)


def mounted_tables():
    run("mount", "--bind", str(TABLES), str(TABLES))
    return lambda: run("umount", str(TABLES))


def without_addresses():
    run("ip", "address", "flush", "dev", "eth0")
    return lambda: run("ip", "address", "add", "192.0.2.10/24", "dev", "eth0")


def wrong_password():
    shadow = Path("/etc/kra/.kra.shadow")
    text = shadow.read_text()
    shadow.write_text("wrong\n")
    return lambda: shadow.write_text(text)


def linked_main_cf():
    pairs.links()
    real = Path("/etc/postfix-site/main.real")
    write(real, real.read_text().replace("    localhost\n", "    localhost, localhost.localdomain\n"), 0o640)
    return link_clean_up


# Name, what is prepared, level, subject, part of the text.
DEFECTS = [
    ("no_postfix", replace_program("/usr/sbin/postconf", None), "stop", "program", "no Postfix"),
    ("no_tool", without(TOOL), "stop", "program", str(TOOL)),
    ("no_hash", without_hash, "stop", "map-type", "hash"),
    ("no_pcre", replace_program("/usr/sbin/postconf", '#!/bin/sh\n/usr/sbin/postconf.replaced "$@" | grep -vx pcre\n'),
     "warning", "map-type", "pcre"),
    ("no_popuser", without_account("passwd", "popuser"), "stop", "account", "popuser is missing"),
    ("no_popuser_group", without_account("group", "popuser"), "warning", "account", "popuser (group)"),
    ("no_mhandlers_user", without_account("passwd", "mhandlers-user"), "warning", "account", "mhandlers-user"),
    ("no_mailman", without_account("passwd", "mailman"), "warning", "account", "mailman is missing"),
    ("no_postfix_local", without(PANEL / "postfix-local"), "warning", "panel", "postfix-local is missing"),
    ("no_postfix_queue", without(PANEL / "postfix-queue"), "warning", "panel", "postfix-queue is missing"),
    ("no_postfix_mailman", without(PANEL / "postfix-mailman"), "warning", "panel", "postfix-mailman is missing"),
    ("no_no_relay", without(TABLES / "no_relay.re"), "warning", "pcre-table", "no_relay.re is missing: smtpd answers 451"),
    ("no_non_auth", without(TABLES / "non_auth.re"), "warning", "pcre-table", "non_auth.re is missing: smtpd answers 451"),
    ("no_certificate", without(POSTFIX / "postfix_default.pem"), "warning", "certificate", "is missing"),
    ("only_loopback", without_addresses, "warning", "network", "only loopback"),
    ("read_only_directory", read_only, "stop", "directory", "/etc/postfix cannot be written"),
    ("mounted_tables", mounted_tables, "stop", "directory", "torva is a mount point"),
    ("no_main_cf", without(MAIN_CF), "warning", "main.cf", "is missing"),
    ("main_cf_without_newline", append(MAIN_CF, "relayhost ="), "warning", "main.cf", "no newline"),
    ("main_cf_link", linked_main_cf, "warning", "main.cf", "symbolic link"),
    ("main_cf_not_read", append(MAIN_CF, "inet_interfaces\n"), "stop", "main.cf", "missing '='"),
    ("entry_cut_short", master_cf("a unix - - y"), "stop", "master.cf", "bad field count"),
    ("unknown_type", master_cf("a tcp - - y - - smtp"), "stop", "master.cf", 'invalid type field "tcp"'),
    ("empty_master_cf", lambda: write(MASTER_CF, ""), "stop", "master.cf", "the file is empty"),
    ("empty_store", empty_store, "stop", "master.cf", "master.cf.disabled is not parsed"),
    ("upper_case_name", master_cf("SMTPS inet n - y - - smtpd"), "ok", "master.cf", "SMTPS/inet: not for the tool"),
    ("address_in_brackets", master_cf("[::1]:25 inet n - y - - smtpd"), "ok", "master.cf", "[::1]:25/inet"),
    ("comment_behind_a_word", master_cf("a unix - - y - - smtp # fast"), "ok", "master.cf", "a/unix"),
    ("not_ascii", master_cf("a unix - - y - - smtp -o x=\u00e9"), "ok", "master.cf", "a/unix"),
    ("foreign_type", master_cf("sub-x pass - - y - - smtpd"), "ok", "master.cf", "sub-x/pass"),
    ("foreign_with_slash", master_cf("a/b pass - - y - - smtpd"), "ok", "master.cf", "a/b/pass"),
    ("private_inet", master_cf("587 inet - - y - - smtpd"), "warning", "service", "587/inet is private"),
    ("port_25_twice", master_cf("25 inet n - y - - smtpd"), "warning", "service", "one endpoint"),
    ("address_and_port_twice", master_cf("127.0.0.1:smtp inet n - y - - smtpd\n127.0.0.1:25 inet n - y - - smtpd"),
     "warning", "service", "one endpoint"),
    ("no_daemon", master_cf("a unix - - y - - no-such-daemon"), "warning", "service", f"no {DAEMONS}/no-such-daemon"),
    ("no_sasl_daemon", without(DAEMONS / "torva_saslauthd"), "warning", "service", "torva_saslauthd"),
    ("no_hash_file", main_cf("virtual_alias_maps = hash:$config_directory/virtual"), "warning", "map", "/etc/postfix/virtual.db"),
    ("no_texthash_file", main_cf("transport_maps = texthash:/etc/transport"), "warning", "map", "no /etc/transport"),
    ("no_map_of_a_service", master_cf("587 inet n - y - - smtpd -o smtpd_client_restrictions=cidr:/etc/no.cidr"),
     "warning", "map", "no /etc/no.cidr"),
    ("alias_directory", main_cf("alias_maps = hash:/no/such/aliases"), "stop", "aliases", "hash:/no/such/aliases cannot"),
    ("alias_reference", main_cf("alias_maps = hash:$config_directory/aliases"), "ok", "aliases", "alias_maps"),
    ("alias_type", main_cf("alias_database = dbm:/etc/aliases"), "stop", "aliases", "dbm:/etc/aliases cannot"),
    ("records", filled_table, "ok", "records", "1 in virtual: the run drops them, apply puts them back"),
    ("no_database_password", without("/etc/kra/.kra.shadow"), "warning", "database", "does not answer"),
    ("wrong_database_password", wrong_password, "warning", "database", "mail names of localhost.localdomain"),
]


def link_clean_up():
    for path in ("/etc/postfix-site", "/etc/mail", "/etc/mail-aliases"):
        remove(path)


class CheckTest(CtlTest):
    @classmethod
    def setUpClass(cls):
        cls.mariadb = CHECKOUT / "tests/tools/private-mariadb"
        if not os.access("/usr/sbin/mariadbd", os.X_OK):
            raise unittest.SkipTest("no MariaDB on this machine")
        run(str(cls.mariadb), "start")
        cls.addClassCleanup(run, str(cls.mariadb), "stop")
        cls.shadow = Path("/etc/kra/.kra.shadow").read_text()

    def setUp(self):
        super().setUp()
        ctlworld.make_good_host()
        write("/etc/kra/.kra.shadow", self.shadow, 0o600)

    def test_reports_nothing_on_a_good_host(self):
        before = tree()
        outcome = self.assertStatus(0, ctl("check", "--json"))
        self.assertEqual(outcome.findings("warning", "stop"), [])
        self.assertEqual(outcome.err, "")
        subjects = {finding["subject"] for finding in outcome.findings("ok")}
        self.assertEqual(subjects, {"program", "map-type", "deprecated", "account", "panel", "pcre-table", "certificate", "network",
                                    "directory", "main.cf", "records", "aliases", "master.cf", "database", "service", "map", "room",
                                    "mydestination"})
        self.assertIn("postlog/unix-dgram", "".join(f["text"] for f in outcome.findings("ok") if f["subject"] == "master.cf"))
        self.assertSame(before, "after check")

    def test_reports_nothing_after_an_apply_either(self):
        self.assertStatus(0, ctl("apply"))
        outcome = self.assertStatus(0, ctl("check", "--json"))
        self.assertEqual(outcome.findings("warning", "stop"), [])

    def test_leaves_no_lock_and_no_scratch_file(self):
        before = sorted(os.listdir("/run/lock")), sorted(os.listdir(os.environ["TMPDIR"]))
        self.assertStatus(0, ctl("check"))
        self.assertEqual(before, (sorted(os.listdir("/run/lock")), sorted(os.listdir(os.environ["TMPDIR"]))))

    def test_needs_root(self):
        outcome = self.assertStatus(1, ctl("--json", "check", argv=["setpriv", "--reuid=nobody", "--clear-groups"]))
        self.assertEqual([f["subject"] for f in outcome.objects()], ["root"])

    def test_finding_says_what_to_do_and_colours_are_for_terminals(self):
        remove(POSTFIX / "postfix_default.pem")
        plain = self.assertStatus(0, ctl("check")).out
        self.assertRegex(plain, r"(?m)^warning  certificate /etc/postfix/postfix_default.pem is missing.*\n +-> put certificate")
        self.assertNotIn("\x1b", plain)
        terminal = run("script", "-qec", f"{CTL} check", "/dev/null")
        self.assertIn("\x1b[33mwarning \x1b[m certificate", terminal)

    def test_bytes_that_are_not_text_stay_valid_json(self):
        write(MAIN_CF, MAIN_CF.read_bytes() + b"virtual_alias_maps = hash:/no/\"\\\x07\xff\xc3\xa9\n")
        outcome = self.assertStatus(0, ctl("check", "--json"))
        text = outcome.findings("warning")[0]["text"]
        self.assertIn('hash:/no/"\\', text)
        self.assertIn("\xff\xc3\xa9", text)


def promise(prepare, level, subject, text):
    def test(self):
        clean_up = prepare()
        if callable(clean_up):
            self.addCleanup(clean_up)
        before = tree()
        outcome = self.assertStatus(int(level == "stop"), ctl("check", "--json"))
        found = [f for f in outcome.findings(level) if f["subject"] == subject and text in f["text"]]
        self.assertEqual(len(found), 1, outcome)
        if level != "ok":
            self.assertTrue(found[0]["action"])
            self.assertEqual(outcome.findings("warning", "stop"), found)
        self.assertSame(before, "after check")
    return test


for name, *defect in DEFECTS:
    setattr(CheckTest, f"test_finds_{name}", promise(*defect))

if __name__ == "__main__":
    ctlworld.main()
