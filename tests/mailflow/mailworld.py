"""The world in which mail flows: the real Postfix, the real MariaDB, the real tool.

A test file is started inside scripts/sandbox --panel-accounts, as
    python3 TEST.py PROGRAM STANDIN-DIRECTORY [TEST-NAME...]
It sets its server up as Debian does, lets the tool run, plays the panel (records in
the tables that the tool made, certificate, restriction lists), and sends mail. In
place of the panel's own programs it has the small ones in standins/.
"""

import email
import glob
import os
import pwd
import re
import shutil
import subprocess
import sys
import time
import unittest
from pathlib import Path

from mailclient import ADDRESS, PATIENCE

HOST = "sandbox.example.net"
OUTSIDE_ADDRESS = "192.0.2.20"

POSTFIX = Path("/etc/postfix")
MAIN_CF = POSTFIX / "main.cf"
MASTER_CF = POSTFIX / "master.cf"
STOCK_MASTER_CF = Path("/usr/share/postfix/master.cf.dist")
CERTIFICATE = POSTFIX / "postfix_default.pem"
SPOOL = Path("/var/spool/postfix")
TORVA = SPOOL / "torva"
DAEMONS = Path("/usr/lib/postfix/sbin")
CHROOT_HOOK = "/usr/lib/postfix/configure-instance.sh"
PANEL_PROGRAMS = Path("/usr/lib/torva-9.0")
MAILNAMES = Path("/var/qmail/mailnames")
MAILLOG = Path("/var/log/mailflow.log")
# Written by the stand-ins; fixed in their sources.
RECORDS = Path("/run/mailflow")
SHELTER = Path("/run/mailflow-shelter")

TESTS = Path(__file__).resolve().parents[1]
PRIVATE_MARIADB = TESTS / "tools/private-mariadb"
SCRIPTS = TESTS.parent / "scripts/lib"


def main():
    if os.environ.get("TORVA_SANDBOX") != "namespaces":
        sys.exit("only to be run inside scripts/sandbox: it replaces files below /etc, /usr and /var")
    for needed, package in {
        "/usr/sbin/postfix": "postfix",
        "/usr/lib/postfix/postfix-pcre.so": "postfix-pcre",
        "/usr/sbin/mariadbd": "mariadb-server",
        "/usr/bin/openssl": "openssl",
        # Without a mechanism smtpd(8) ends as soon as SASL is switched on.
        "/usr/lib/*/sasl2/libplain.so": "libsasl2-modules",
    }.items():
        if not glob.glob(needed):
            sys.exit(f"{needed} is missing (Debian package {package})")
    os.umask(0o022)
    World.program, World.standins = (Path(word).resolve() for word in sys.argv[1:3])
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)


def run(*argv, **how):
    """Runs a program that must succeed; returns its standard output."""
    how = {"check": True, "text": True, "timeout": PATIENCE, "stdout": subprocess.PIPE, **how}
    return subprocess.run([str(word) for word in argv], **how).stdout


def remove(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)


def children(parent):
    """The directories of a process's children, see proc(5)."""
    text = Path(f"/proc/{parent}/task/{parent}/children").read_text()
    return [Path("/proc") / child for child in text.split()]


def wait_for(what, condition):
    """The first true result of condition(), which is asked again and again."""
    deadline = time.monotonic() + PATIENCE
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError("never happened: " + what)
        time.sleep(0.01)


class Delivery:
    """A message as the delivery program put it into a maildir."""

    def __init__(self, path):
        self.path = path
        self.raw = path.read_bytes()
        self.maildir = path.parent.parent
        self.owner = pwd.getpwuid(path.stat().st_uid).pw_name

    def added_to(self, message):
        """The header lines before a message that arrived with every byte it had."""
        if not self.raw.endswith(message.text):
            raise AssertionError(f"damaged: {self.raw!r}\nsent: {message.text!r}")
        return email.message_from_bytes(self.raw[: -len(message.text)]).items()


class Relayed:
    """A connection that a mail handler carried."""

    def __init__(self, path):
        head, self.said = path.read_bytes().split(b"\n", 1)
        self.phase, self.address, self.port = head.decode().split()


class World:
    """One server. Each test file has its own sandbox, and so its own server."""

    program = standins = None

    def __init__(self, **parameters):
        self._started = False
        self._judged = 0  # so much of the log has been searched for warnings
        # Mail that waits on the machine itself is none of our business.
        for queue in "maildrop incoming active deferred defer bounce hold trace flush corrupt saved".split():
            for path in (SPOOL / queue).glob("*"):
                remove(path)
        for path in (TORVA, Path("/var/mail/root"), MAILLOG, *MAILNAMES.iterdir()):
            remove(path)
        self._install_postfix(parameters)
        for program in self.standins.iterdir():
            shutil.copy(program, PANEL_PROGRAMS)
            # Others than root run them, whatever umask they were built under.
            (PANEL_PROGRAMS / program.name).chmod(0o755)
        for name, owner in (("queue", "mhandlers-user"), ("mailman", "mailman")):
            (RECORDS / name).mkdir(parents=True)
            shutil.chown(RECORDS / name, owner)

    def _install_postfix(self, parameters):
        """The two files as Debian's package writes them for an "Internet Site"."""
        shutil.copy(STOCK_MASTER_CF, MASTER_CF)
        parameters = {
            "smtpd_relay_restrictions": "permit_mynetworks permit_sasl_authenticated defer_unauth_destination",
            "myhostname": HOST,
            "alias_maps": "hash:/etc/aliases",
            "alias_database": "hash:/etc/aliases",
            "relayhost": "",
            "mynetworks": "127.0.0.0/8 [::ffff:127.0.0.0]/104 [::1]/128",
            "mailbox_size_limit": "0",
            "recipient_delimiter": "+",
            "inet_interfaces": "all",
            "inet_protocols": "all",
            # There is no syslog daemon here.
            "maillog_file": str(MAILLOG),
            **parameters,
        }
        # Which parameters that file sets differs, and a second line for one is a warning.
        lines = Path("/usr/share/postfix/main.cf.debian").read_text().splitlines(keepends=True)
        kept = "".join(line for line in lines if line.split("=")[0].strip() not in parameters)
        MAIN_CF.write_text(kept + "".join(f"{name} = {value}\n" for name, value in parameters.items()))
        # Postfix's programs sleep until it is older than about two seconds.
        past = time.time() - 10
        os.utime(MAIN_CF, (past, past))
        Path("/etc/aliases").write_text("postmaster: root\n")
        run("newaliases")

    def start_database(self, statements):
        """MariaDB with the panel's database; statements: SQL that fills it."""
        run(PRIVATE_MARIADB, "start")
        run("mariadb", "--no-defaults", "--socket=/run/mysqld/mysqld.sock", "--user=root", "kra", input=statements)

    def run_tool(self):
        """Runs the tool; "postlog", whose type it cannot read, is sheltered meanwhile."""
        script = """
            set -euo pipefail
            program=mailflow
            source "$1/messages.sh"
            source "$1/shelter.sh"
            shelter_services "$2" >&2
            status=0
            "$3" 2>&1 || status=$?
            restore_services "$2" >&2
            exit "$status"
        """
        environment = {name: value for name, value in os.environ.items() if name != "TORVA_INSTALLER_DEBUG"}
        remove(SHELTER)
        said = run("bash", "-c", script, "mailflow", SCRIPTS, SHELTER, self.program, env=environment)
        # A run that reaches the database and finds nothing wrong says nothing; from Postfix
        # 3.11 on, postalias warns of each index of type hash.
        said = re.sub(r"(?m)^postalias: warning: .*\n", "", said)
        if said:
            raise AssertionError("the tool said: " + said)

    def put(self, table, **records):
        """Records for one of the tool's tables, written as the panel writes them."""
        lines = "".join(f"{key} {value}\n" for key, value in records.items())
        run("postmap", "-r", "-i", f"hash:{TORVA / table}", input=lines)

    def write_restriction_lists(self):
        """The panel's lists of clients, without which smtpd(8) tells everybody to come
        back later (451)."""
        for name in ("no_relay.re", "non_auth.re"):
            (TORVA / name).write_text("# nobody\n")

    def write_certificate(self):
        """The panel's default certificate, key and all, where main.cf wants it."""
        request = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc",
                   "-days", "30", "-subj", "/CN=" + HOST, "-addext", f"subjectAltName=DNS:{HOST},IP:{ADDRESS}"]
        CERTIFICATE.touch(mode=0o600)
        CERTIFICATE.write_text(run(*request, "-keyout", "-", stderr=subprocess.DEVNULL))

    def start_postfix(self):
        """Starts Postfix the way Debian's service does."""
        self._started = True
        # From Debian 13 on, Postfix itself calls it.
        if CHROOT_HOOK not in (DAEMONS / "post-install").read_text():
            run(CHROOT_HOOK, "-")
        run("postfix", "start")
        self._wait_for_unix_pickup()

    def reload_postfix(self):
        """Makes a running Postfix take over master.cf and every table as they now are.
        It is not done when "postfix reload" ends: a process of before may still answer."""
        before = children(int((SPOOL / "pid/master.pid").read_text()))
        run("postfix", "reload")
        wait_for("the end of every process of before", lambda: not any(map(Path.exists, before)))
        self._wait_for_unix_pickup()

    def _wait_for_unix_pickup(self):
        """Waits out the one time that master(8) wakes Debian's "pickup" of type unix,
        before the tool's fifo takes over its path. A message that is in maildrop then is
        picked up by both services: it arrives twice, once without the filter."""

        def served():
            # Num RefCount Protocol Flags Type St Inode Path; a listening socket has a
            # flag, a connection goes when it was served. See proc(5).
            sockets = [line.split() for line in Path("/proc/net/unix").read_text().splitlines()]
            return not any(words[-1].endswith("public/pickup") and words[3] == "00000000" for words in sockets)

        wait_for("the end of the first pickup", served)

    def close(self):
        try:
            if self._started:
                run("postfix", "stop")
        finally:
            run(PRIVATE_MARIADB, "stop")

    def log(self):
        return MAILLOG.read_text(errors="replace") if MAILLOG.exists() else ""

    def log_line(self, pattern):
        """The match of a regular expression in the mail log, once it is there."""
        return wait_for("in the mail log: " + pattern, lambda: re.search(pattern, self.log()))

    def new_complaints(self, expected):
        """Postfix's warnings since the last call, without the expected ones."""
        text = self.log()[self._judged:]
        lines = text[: text.rfind("\n") + 1].splitlines(keepends=True)
        self._judged += sum(map(len, lines))
        bad = re.compile(r": (warning|error|fatal|panic): ")
        return [line for line in lines if bad.search(line) and not any(known in line for known in expected)]

    def wait_until_idle(self):
        queues = [SPOOL / name for name in ("maildrop", "incoming", "active", "deferred")]
        wait_for("an empty mail queue", lambda: not any(
            path.is_file() for queue in queues for path in queue.rglob("*")))

    def deliveries(self, message, wanted=1):
        """Where the message was put, once it was put to so many places and Postfix has
        nothing left to do."""

        def found():
            every = [Delivery(path) for path in sorted(MAILNAMES.glob("*/*/Maildir/new/*"))]
            return [delivery for delivery in every if message.token in delivery.raw]

        # First this: between two hops a message may slip past a look at the queues.
        wait_for(f"{wanted} deliveries", lambda: len(found()) >= wanted)
        self.wait_until_idle()
        return found()

    def relayed_names(self):
        """The names of the records of all connections that the mail handlers have carried."""
        return {path.name for path in (RECORDS / "queue").iterdir()}

    def relayed(self, names):
        return [Relayed(RECORDS / "queue" / name) for name in sorted(names)]


class MailTest(unittest.TestCase):
    """One server for the tests of a class; set_up() makes it."""

    longMessage = True
    maxDiff = None
    # Warnings of this server that are not faults.
    expected_warnings = (
        # Debian's "pickup" of type unix is beside the tool's of type fifo, and both mean
        # the path public/pickup, which the later one, the fifo, takes over.
        "master_wakeup_timer_event: service pickup(public/pickup): Connection refused",
        # From Postfix 3.11 on, of each table of type hash.
        "hash/btree support is deprecated",
        "NON_BERKELEYDB_README",
        # Later kernels date files more finely than time(2) tells, which stays behind until the
        # next tick: at the turn of a second, a file may be younger than the clock says.
        "file system clock is 1 seconds ahead of local clock",
        "resetting file time stamps",
    )

    @classmethod
    def setUpClass(cls):
        cls.world = None
        cls.addClassCleanup(lambda: cls.world and cls.world.close())
        try:
            cls.set_up()
        except BaseException:
            cls.show_log(0)
            raise

    def run(self, result=None):
        def bad():
            return len(result.failures) + len(result.errors)

        before, start = bad(), len(self.world.log())
        super().run(result)
        if bad() > before:
            self.show_log(start)
        return result

    @classmethod
    def show_log(cls, start):
        if cls.world is not None:
            print(f"\n--- mail log:\n{cls.world.log()[start:]}---", file=sys.stderr)

    def setUp(self):
        self.forget_relayed()

    def tearDown(self):
        self.assertEqual(self.world.new_complaints(self.expected_warnings), [])

    def forget_relayed(self):
        self._before = self.world.relayed_names()

    def relayed(self, phase):
        """The connections that the handler of one phase has carried since then."""
        new = self.world.relayed(self.world.relayed_names() - self._before)
        return [relay for relay in new if relay.phase == phase]

    def assertOne(self, things):
        """That there is one, which is the result."""
        self.assertEqual(len(things), 1, things)
        return things[0]

    def assertDelivered(self, message, mailbox):
        """Arrived once, in the maildir of one mail name, undamaged; the headers added."""
        name, domain = mailbox.split("@")
        delivery = self.assertOne(self.world.deliveries(message))
        self.assertEqual(delivery.maildir, MAILNAMES / domain / name / "Maildir")
        self.assertEqual(delivery.owner, "popuser")
        self.assertEqual(list((delivery.maildir / "tmp").iterdir()), [])
        added = delivery.added_to(message)
        self.assertEqual([name for name, _ in added],
                         ["Return-Path", "X-Original-To", "Delivered-To", "Received", "Received"])
        self.assertEqual(dict(added)["Return-Path"], f"<{message.sender}>")
        self.assertEqual(dict(added)["Delivered-To"], mailbox)
        return added

    def assertPassedBothHandlers(self, message):
        """Through 10025 to 10027 and from there to 10026, one connection each."""
        for phase, port in (("before-queue", "10027"), ("before-remote", "10026")):
            relay = self.assertOne(self.relayed(phase))
            self.assertEqual((relay.address, relay.port), ("127.0.0.1", port))
            self.assertIn(message.token, relay.said)
