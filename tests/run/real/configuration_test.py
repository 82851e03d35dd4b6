"""The program with the real Postfix: the results with a stock and a hand-made configuration."""

import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import golden, transcript
from runworld import (BLACKLISTS, CONFIGURATION_ERROR, DATABASE_ERROR, LOCAL_NETWORKS, MAIN_CF, MASTER_CF, NO_RELAY,
                      NON_AUTH, POSTFIX, TABLES, TORVA, RealWorld, RunTest, as_mortal, fatal, main, remove)

STOCK_MASTER_CF = Path("/usr/share/postfix/master.cf.dist")
STOCK_MAIN_CF = """\
# See /usr/share/postfix/main.cf.dist for a commented, more complete version
smtpd_banner = $myhostname ESMTP $mail_name (Debian/GNU)
biff = no
append_dot_mydomain = no
readme_directory = no
compatibility_level = 3.6

smtpd_relay_restrictions = permit_mynetworks permit_sasl_authenticated defer_unauth_destination
myhostname = host.example.net
alias_maps = hash:/etc/aliases
alias_database = hash:/etc/aliases
mydestination = $myhostname, host.example.net, localhost.example.net, , localhost
relayhost =
mynetworks = 127.0.0.0/8
mailbox_size_limit = 0
recipient_delimiter = +
inet_interfaces = loopback-only
inet_protocols = all
"""
CLOSED = f"permit_mynetworks, {NO_RELAY}, reject_unauth_destination"
# What Postfix must have as its own after a run over STOCK_MAIN_CF.
SET_BY_A_RUN = {
    "inet_interfaces": "all",
    "virtual_mailbox_domains": "$virtual_mailbox_maps, hash:/var/spool/postfix/torva/virtual_domains",
    "virtual_alias_maps": "$virtual_maps, hash:/var/spool/postfix/torva/virtual",
    "virtual_mailbox_maps": "hash:/var/spool/postfix/torva/vmailbox",
    "alias_maps": "hash:/etc/aliases, hash:/var/spool/postfix/torva/aliases",
    "transport_maps": "hash:/var/spool/postfix/torva/transport",
    "smtpd_tls_cert_file": "/etc/postfix/postfix_default.pem",
    "smtpd_tls_key_file": "$smtpd_tls_cert_file",
    "smtpd_tls_security_level": "may",
    "smtpd_use_tls": "yes",
    "smtp_tls_security_level": "may",
    "smtp_use_tls": "no",
    "smtpd_timeout": "3600s",
    "smtpd_proxy_timeout": "3600s",
    "mynetworks": LOCAL_NETWORKS,
    "smtpd_sender_restrictions": f"{BLACKLISTS}, permit_sasl_authenticated, {NON_AUTH}",
    "mydestination": "$myhostname, localhost.example.net, localhost",
    "smtp_send_xforward_command": "yes",
    "smtpd_authorized_xforward_hosts": "127.0.0.0/8",
    "smtpd_sasl_auth_enable": "yes",
    "smtpd_recipient_restrictions": CLOSED,
    "virtual_mailbox_base": "/var/qmail/mailnames",
    "virtual_uid_maps": "static:30",
    "virtual_gid_maps": "static:31",
    "virtual_transport": "torva_virtual",
    "torva_virtual_destination_recipient_limit": "1",
}
PANEL_SERVICES = golden("master.cf.after").decode().split("\n\n", 1)[1].splitlines()
SMTP = "smtp inet n - - - - smtpd -o smtpd_proxy_filter=127.0.0.1:10025"
MAILMAN = ("mailman unix - n n - - pipe flags=R user=mailman:mailman "
           "argv=/usr/lib/torva-9.0/postfix-mailman ${nexthop} ${user} ${recipient}")


def replaced(text, name, kind, new):
    """master.cf with another text for one entry, its continuation lines included."""
    pattern = re.compile(rf"^{re.escape(name)}[ \t]+{kind}[ \t].*\n([ \t].*\n)*", re.MULTILINE)
    result, count = pattern.subn(lambda _: new + "\n" if new else "", text)
    assert count == 1, (name, kind, count)
    return result


class RealTest(RunTest):
    kind = RealWorld

    def setUp(self):
        super().setUp()
        shutil.copy(STOCK_MASTER_CF, MASTER_CF)
        self.world.write_main_cf(STOCK_MAIN_CF)

    def query(self, key, table="virtual"):
        run = self.world.tool("/usr/sbin/postmap", "-q", key, f"hash:{TORVA / table}", check=False)
        self.assertEqual([line for line in run.stderr.splitlines() if ": warning: " not in line], [])
        return run.stdout.rstrip("\n") if run.returncode == 0 else None

    def assertPostfixAccepts(self):
        check = self.world.tool("/usr/sbin/postfix", "check", check=False)
        self.assertEqual(check.returncode, 0, check.stderr)
        self.assertNotRegex(check.stderr, "fatal|error|panic")

    def first_run(self):
        self.world.shelter()
        run = self.world.run()
        self.assertCompleted(run)
        return run


class StockTest(RealTest):
    def test_the_stock_master_cf_has_a_type_of_later_times_and_is_refused(self):
        stock = MASTER_CF.read_bytes()
        self.assertIn(b"unix-dgram", stock)
        before = os.stat(MASTER_CF)
        run = self.world.run()
        text = transcript()
        header = "Configuring Postfix services/modules for Torva:\n"
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, "unable to parse /etc/postfix/master.cf"),
                         said=text[: text.index(header) + len(header)])
        self.assertEqual(MASTER_CF.read_bytes(), stock)
        self.assertEqual(os.stat(MASTER_CF).st_ino, before.st_ino)
        # The earlier phases stay applied, this one has written nothing.
        values = self.world.values()
        self.assertEqual(values["virtual_gid_maps"], "static:31")
        self.assertNotIn("virtual_transport", values)

    def test_a_first_run_says_every_step_and_nothing_of_postfixs(self):
        run = self.first_run()
        self.assertEqual(run.err, transcript())

    def test_a_first_run_sets_these_parameters_and_no_other(self):
        before = self.world.values()
        self.first_run()
        self.assertEqual(self.world.values(), {**before, **SET_BY_A_RUN})

    def test_a_first_run_keeps_the_comments_of_main_cf_and_the_order_of_what_was_there(self):
        self.first_run()
        kept = [line.split(" =")[0] for line in STOCK_MAIN_CF.splitlines()]
        self.assertEqual([line.split(" =")[0] for line in MAIN_CF.read_text().splitlines()][: len(kept)], kept)

    def test_a_first_run_adds_the_services_and_keeps_every_other_line(self):
        self.world.shelter()
        expected = MASTER_CF.read_text()
        self.assertIn("\n#postlog ", expected)
        expected = replaced(expected, "smtp", "inet", SMTP)
        # Stock has a tlsmgr, which stays, and a pickup of another type, which stays as well.
        added = [line for line in PANEL_SERVICES if not line.startswith("tlsmgr ")]
        self.assertEqual(len(added), 6)
        if re.search(r"^mailman\s", expected, re.MULTILINE):
            expected = replaced(expected, "mailman", "unix", MAILMAN)
        else:
            added.insert(1, MAILMAN)  # Debian 13 has none; it is the second that a run puts in
        self.assertCompleted(self.world.run())
        self.assertEqual(MASTER_CF.read_text(), expected + "\n" + "".join(line + "\n" for line in added))
        self.assertEqual(MASTER_CF.stat().st_mode & 0o7777, 0o644)

    def test_postfix_accepts_the_result_and_reads_each_service_back(self):
        self.first_run()
        self.assertPostfixAccepts()
        services = {tuple(line.split()[:2]) for line in self.world.tool("/usr/sbin/postconf", "-M").stdout.splitlines()}
        for line in [SMTP, MAILMAN, *PANEL_SERVICES, "pickup unix"]:
            self.assertIn(tuple(line.split()[:2]), services)
        options = self.world.tool("/usr/sbin/postconf", "-P", "127.0.0.1:10026/inet").stdout.splitlines()
        self.assertIn("127.0.0.1:10026/inet/smtpd_recipient_restrictions = permit_mynetworks,reject", options)
        self.assertEqual(len(options), 6)

    def test_the_tables_are_built_and_can_be_asked(self):
        self.first_run()
        for name in TABLES:
            self.assertEqual((TORVA / name).read_bytes(), b"", name)
            for path in (TORVA / name, TORVA / (name + ".db")):
                self.assertEqual(path.stat().st_mode & 0o7777, 0o644, path)
            self.assertIsNone(self.query("nobody@example.org", name))
        for local in ("postmaster", "mailer-daemon", "root", "anonymous", "drweb"):
            self.assertEqual(self.query(f"{local}@host.example.net"), f"{local}@localhost.localdomain")
        listing = self.world.tool("/usr/sbin/postmap", "-s", f"hash:{TORVA / 'virtual'}").stdout
        self.assertEqual(len(listing.splitlines()), 5)

    def test_the_system_aliases_are_indexed(self):
        self.first_run()
        found = self.world.tool("/usr/sbin/postalias", "-q", "postmaster", "hash:/etc/aliases")
        self.assertEqual(found.stdout, "root\n")

    def test_aliases_that_a_reference_leads_to_are_indexed_and_the_reference_stays(self):
        text = STOCK_MAIN_CF.replace("alias_maps = hash:/etc/aliases", "alias_maps = $alias_database, nis:x")
        text = text.replace("alias_database = hash:/etc/aliases",
                            "alias_database = hash:/etc/aliases, hash:$config_directory/more")
        more = POSTFIX / "more"
        more.write_text("extra: root\n")
        self.addCleanup(remove, more)
        self.addCleanup(remove, f"{more}.db")
        self.world.write_main_cf(text)
        self.world.shelter()
        run = self.world.run()
        self.assertEqual(run.status, 0, run.err)
        for name, kept in (("postmaster", "hash:/etc/aliases"), ("extra", f"hash:{more}")):
            self.assertEqual(self.world.tool("/usr/sbin/postalias", "-q", name, kept).stdout, "root\n")
        self.assertEqual(self.world.values()["alias_maps"],
                         "$alias_database, hash:/var/spool/postfix/torva/aliases")
        self.assertEqual(self.world.values()["alias_database"], "hash:/etc/aliases, hash:$config_directory/more")

    def test_main_cf_looks_settled_to_the_next_postfix_program(self):
        self.first_run()
        self.assertGreaterEqual(time.time() - MAIN_CF.stat().st_mtime, 2)

    def test_the_machines_own_stock_configuration_gets_its_full_name(self):
        self.world.write_main_cf(re.sub(r"\bhost\.example\.net", "vm", STOCK_MAIN_CF))
        full = self.world.tool("hostname", "-f").stdout.strip()
        self.assertEqual(full, "sandbox.example.net")
        self.first_run()
        values = self.world.values()
        self.assertEqual(values["myhostname"], full)
        # Postfix derives a dotted mydomain from the name by itself.
        self.assertNotIn("mydomain", values)
        self.assertEqual(self.query(f"root@{full}"), "root@localhost.localdomain")
        self.assertEqual(values["mydestination"], "$myhostname, vm, localhost.example.net, , localhost")


class SecondRunTest(RealTest):
    def test_a_second_run_leaves_main_cf_and_master_cf_byte_for_byte_and_the_inode_of_master_cf(self):
        self.first_run()
        main_cf, master_cf, inode = MAIN_CF.read_bytes(), MASTER_CF.read_bytes(), MASTER_CF.stat().st_ino
        for _ in range(2):
            run = self.world.run()
            self.assertCompleted(run)
            self.assertEqual(run.err, transcript())
            self.assertEqual(MAIN_CF.read_bytes(), main_cf)
            self.assertEqual(MASTER_CF.read_bytes(), master_cf)
            self.assertEqual(MASTER_CF.stat().st_ino, inode)
        self.assertPostfixAccepts()

    def test_a_second_run_empties_the_tables_again_and_puts_the_hosts_records_back(self):
        self.first_run()
        subprocess.run(["/usr/sbin/postmap", "-r", "-i", f"hash:{TORVA / 'virtual'}"], input=b"a@b.c d@e.f\n", check=True)
        self.assertEqual(self.query("a@b.c"), "d@e.f")
        self.assertCompleted(self.world.run())
        self.assertIsNone(self.query("a@b.c"))
        self.assertEqual(self.query("root@host.example.net"), "root@localhost.localdomain")

    def test_what_an_administrator_changed_in_between_stays_where_it_may(self):
        self.first_run()
        text = MASTER_CF.read_text()
        text = replaced(text, "smtp", "inet", "# mine\nsmtp inet n - n - 50 smtpd\n  -o smtpd_proxy_filter=")
        own = "127.0.0.1:10026 inet n - n - 20 smtpd\n  # quiet\n  -o syslog_name=postfix/clean"
        text = replaced(text, "127.0.0.1:10026", "inet", own)
        text = replaced(text, "tlsmgr", "unix", "tlsmgr unix - - n 300? 1 tlsmgr -v")
        text = replaced(text, "torva_saslauthd", "unix", None)
        text = replaced(text, "pickup", "fifo", "#pickup fifo n - - 60 1 pickup")
        text += "submission inet n - y - - smtpd\n\t-o smtpd_tls_security_level=encrypt\n"
        MASTER_CF.write_text(text)
        expected = text.replace("smtp inet n - n - 50 smtpd\n  -o smtpd_proxy_filter=\n", SMTP + "\n")
        expected += "\n" + "".join(line + "\n" for line in PANEL_SERVICES if line.startswith(("pickup", "torva_sasl")))

        def edit(old, new):
            text = MAIN_CF.read_text()
            self.assertEqual(text.count(old), 1, old)
            MAIN_CF.write_text(text.replace(old, new))
        edit("\nvirtual_alias_maps = $virtual_maps, hash:/var/spool/postfix/torva/virtual",
             "\n# both on lines of their own\nvirtual_alias_maps =\n  hash:/etc/postfix/mine,\n"
             "  hash:/var/spool/postfix/torva/virtual")
        edit("\ntransport_maps = hash:/var/spool/postfix/torva/transport", "\ntransport_maps = hash:/etc/postfix/mine")
        edit(f"\nmynetworks = {LOCAL_NETWORKS}", "\nmynetworks = 10.0.0.0/8 172.16.0.0/12 192.168.0.0/16 203.0.113.0/24, 127.0.0.0/8")
        edit(f"\nsmtpd_recipient_restrictions = {CLOSED}", "\nsmtpd_recipient_restrictions = permit")
        edit(f"\nsmtpd_sender_restrictions = {BLACKLISTS}, ", "\nsmtpd_sender_restrictions = reject_unknown_sender_domain, ")
        edit("\nvirtual_mailbox_base = /var/qmail/mailnames", "\nvirtual_mailbox_base = /mine")
        edit("\nrecipient_delimiter = +", "\nrecipient_delimiter = -")
        (POSTFIX / "mine").write_text("")
        self.addCleanup(remove, POSTFIX / "mine")
        self.world.settle()
        before = self.world.values()

        run = self.world.run()
        self.assertEqual((run.status, run.err), (0, transcript()))
        self.assertEqual(MASTER_CF.read_text(), expected)
        self.assertEqual(self.world.values(), {
            **before,
            "transport_maps": "hash:/etc/postfix/mine, hash:/var/spool/postfix/torva/transport",
            "smtpd_recipient_restrictions": CLOSED,
            "smtpd_sender_restrictions": f"reject_unknown_sender_domain, permit_sasl_authenticated, {NON_AUTH}, {BLACKLISTS}",
            "virtual_mailbox_base": "/var/qmail/mailnames",
        })
        self.assertEqual(before["recipient_delimiter"], "-")
        self.assertIn("# both on lines of their own\nvirtual_alias_maps =\n  hash:/etc/postfix/mine,\n", MAIN_CF.read_text())
        self.assertPostfixAccepts()


class OtherMainCfTest(RealTest):
    def test_a_missing_main_cf_is_created_and_filled(self):
        MAIN_CF.unlink()
        MASTER_CF.write_text(replaced(MASTER_CF.read_text(), "postlog", "unix-dgram", "#postlog"))
        self.assertCompleted(self.world.run())
        values = self.world.values()
        defaults = [self.world.tool("/usr/sbin/postconf", "-d", "-h", name).stdout.strip()
                    for name in ("alias_maps", "alias_database")]
        indexed = defaults[0].replace(", nis:mail.aliases", "")
        self.assertRegex(indexed, r"\A\S+:/etc/aliases\Z")
        self.assertEqual(values["alias_maps"], indexed + ", hash:/var/spool/postfix/torva/aliases")
        self.assertEqual(values["alias_database"], defaults[1])
        # Here it has Postfix's own default, which becomes the narrow list.
        self.assertEqual(values["mynetworks"], LOCAL_NETWORKS)
        self.assertEqual({name: values[name] for name in ("virtual_transport", "smtpd_recipient_restrictions")},
                         {"virtual_transport": "torva_virtual", "smtpd_recipient_restrictions": CLOSED})

    def test_another_configuration_directory_is_chosen_by_mail_config(self):
        self.world.shelter()
        other = Path("/etc/other-postfix")
        shutil.copytree(POSTFIX, other, symlinks=True)
        self.addCleanup(remove, other)
        before = {path: path.read_bytes() for path in (MAIN_CF, MASTER_CF)}
        run = self.world.run(env={"MAIL_CONFIG": str(other)})
        self.assertEqual(run.status, 0, run.err)
        self.assertEqual({path: path.read_bytes() for path in before}, before)
        self.assertIn("\nvirtual_transport = torva_virtual\n", (other / "main.cf").read_text())
        self.assertIn("\n" + SMTP + "\n", (other / "master.cf").read_text())

    def test_the_default_networks_become_the_narrow_list(self):
        text = STOCK_MAIN_CF.replace("mynetworks = 127.0.0.0/8\n", "").replace("compatibility_level = 3.6\n", "")
        self.world.write_main_cf(text)
        self.first_run()
        self.assertEqual(self.world.values()["mynetworks"], LOCAL_NETWORKS)

    def test_localhost_becomes_localhost_localdomain_and_gets_no_records(self):
        self.world.write_main_cf(STOCK_MAIN_CF.replace("myhostname = host.example.net", "myhostname = localhost\nmydomain = x"))
        self.first_run()
        values = self.world.values()
        self.assertEqual((values["myhostname"], values["mydomain"]), ("localhost.localdomain", "localdomain"))
        self.assertEqual(self.world.tool("/usr/sbin/postmap", "-s", f"hash:{TORVA / 'virtual'}").stdout, "")

    def test_a_main_cf_that_postfix_cannot_read_ends_the_run_with_its_own_words(self):
        def directory():
            MAIN_CF.unlink()
            MAIN_CF.mkdir()
        spoilt = [("a directory", directory), ("no parameter", lambda: self.world.write_main_cf("no equals sign\n")),
                  ("not ours to read", lambda: MAIN_CF.chmod(0)), ("not ours to enter", lambda: POSTFIX.chmod(0))]
        for what, spoil in spoilt:
            with self.subTest(what):
                self.world.reset()
                spoil()
                source = Path("/run/capture/probe")
                source.write_text("")
                words = self.world.tool("/usr/sbin/postmap", "-r", f"hash:{source}", check=False, preexec_fn=as_mortal)
                self.assertNotEqual(words.returncode, 0)
                self.assertIn("fatal: ", words.stderr)
                run = self.world.run(preexec_fn=as_mortal)
                self.assertFatal(run, fatal(DATABASE_ERROR, words.stderr))
                self.assertEqual(MASTER_CF.read_bytes(), (RealWorld.KEPT / "master.cf").read_bytes())


class FullDiskTest(RealTest):
    def test_tables_that_do_not_fit_end_the_run_with_the_words_of_postmap(self):
        self.world.mount_small(TORVA, "size=16k")
        run = self.world.run()
        self.assertFatal(run, re.compile(rf"\AFatal error: {DATABASE_ERROR}\([^)]*postmap: fatal: [^)]+: No space left on device\n\)\n\Z"))
        self.assertEqual(self.world.tool("/usr/sbin/postconf", "-h", "inet_interfaces").stdout, "loopback-only\n")

    def test_a_run_after_a_full_disk_is_like_a_first_run(self):
        self.world.mount_small(TORVA, "size=16k")
        self.assertEqual(self.world.run().status, 1)
        subprocess.run(["mount", "-o", "remount,size=16m", TORVA], check=True)
        self.assertEqual(self.first_run().err, transcript())

    def test_indexes_that_a_killed_tool_left_half_made_do_not_stop_the_run(self):
        TORVA.mkdir()
        for path in (TORVA / "__db.virtual.db", Path("/etc/__db.aliases.db")):
            path.write_bytes(b"")
        self.assertEqual(self.first_run().err, transcript())
        self.assertFalse(Path("/etc/__db.aliases.db").exists())

    def test_a_main_cf_that_does_not_fit_stays_and_the_run_ends_with_the_words_of_postconf(self):
        self.world.mount_small(POSTFIX, "size=256k")
        self.world.shelter()
        space = os.statvfs(POSTFIX)
        (POSTFIX / "filler").write_bytes(b"\0" * (space.f_bfree * space.f_bsize))
        before, master_cf = MAIN_CF.read_bytes(), MASTER_CF.read_bytes()
        run = self.world.run()
        self.assertEqual(run.status, 1)
        self.assertRegex(run.out, rf"\AFatal error: {CONFIGURATION_ERROR}\([^\n]*postconf: fatal: [^\n]+\n\)\n\Z")
        self.assertEqual((MAIN_CF.read_bytes(), MASTER_CF.read_bytes()), (before, master_cf))


if __name__ == "__main__":
    main()
