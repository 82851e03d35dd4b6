"""The world in which the rehearsal is tested: a Postfix that the real tool has configured,
the panel's part of the host as stand-ins, and a small program that rehearses.

A test file is started inside scripts/sandbox --panel-accounts, as
    python3 TEST.py TOOL STANDIN-DIRECTORY REHEARSE [TEST-NAME...]
"""

import hashlib
import json
import os
import shutil
import socket
import stat
import subprocess
import sys
import time
import unittest
from pathlib import Path

TESTS = Path(__file__).resolve().parents[2]
SCRIPTS = TESTS.parent / "scripts/lib"
SANDBOX = TESTS.parent / "scripts/sandbox"
HOST = "sandbox.example.net"
POSTFIX = Path("/etc/postfix")
SPOOL = Path("/var/spool/postfix")
TABLES = SPOOL / "torva"
PANEL = Path("/usr/lib/torva-9.0")
RECORDS = Path("/run/mailflow")  # what the stand-ins write down
KEPT = Path("/run/rehearsal-kept")
QUEUES = "maildrop incoming active deferred defer bounce hold trace flush corrupt saved".split()
TOOL = STANDINS = REHEARSE = None


def main():
    global TOOL, STANDINS, REHEARSE
    if os.environ.get("TORVA_SANDBOX") != "namespaces":
        sys.exit("only to be run inside scripts/sandbox: it replaces files below /etc, /usr and /var")
    for needed in ("/usr/sbin/postfix", "/usr/lib/postfix/postfix-pcre.so"):
        if not os.access(needed, os.R_OK):
            print(f"SKIP: {needed} is missing")
            sys.exit(77)
    os.umask(0o022)
    TOOL, STANDINS, REHEARSE = (Path(word).resolve() for word in sys.argv[1:4])
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]], verbosity=2)


def run(*argv, **how):
    how = {"check": True, "text": True, "timeout": 120, "stdout": subprocess.PIPE, "stdin": subprocess.DEVNULL, **how}
    return subprocess.run([str(word) for word in argv], **how).stdout


def remove(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)


def settle(path):
    """Postfix's programs sleep until a file is older than about two seconds."""
    past = time.time() - 100
    os.utime(path, (past, past))


def postconf(*settings):
    run("postconf", "-e", *settings)
    settle(POSTFIX / "main.cf")


def table(name, text):
    """A table that needs no index, in Postfix's directory."""
    (POSTFIX / name).write_text(text)
    settle(POSTFIX / name)


def program(path, text):
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


def make_host():
    """A host with a domain, Debian's files, on which the tool has run and the panel has
    done its part. Made once; keep() and restore() bring it back for each test."""
    for queue in QUEUES:
        for path in (SPOOL / queue).glob("*"):
            remove(path)
    shutil.copy("/usr/share/postfix/master.cf.dist", POSTFIX / "master.cf")
    parameters = {
        "compatibility_level": "3.6",
        "smtpd_relay_restrictions": "permit_mynetworks permit_sasl_authenticated defer_unauth_destination",
        "myhostname": HOST,
        "alias_maps": "hash:/etc/aliases",
        "alias_database": "hash:/etc/aliases",
        "mydestination": f"$myhostname, {HOST}, localhost.example.net, localhost.localdomain, localhost",
        "mynetworks": "127.0.0.0/8 [::ffff:127.0.0.0]/104 [::1]/128",
        "recipient_delimiter": "+",
        "inet_interfaces": "all",
        "inet_protocols": "all",
    }
    text = Path("/usr/share/postfix/main.cf.debian").read_text()
    (POSTFIX / "main.cf").write_text(text + "".join(f"{name} = {value}\n" for name, value in parameters.items()))
    settle(POSTFIX / "main.cf")
    set_aliases("postmaster: root")
    for path in STANDINS.iterdir():
        shutil.copy(path, PANEL)
        (PANEL / path.name).chmod(0o755)
    for name, owner in (("queue", "mhandlers-user"), ("mailman", "mailman")):
        (RECORDS / name).mkdir(parents=True)
        shutil.chown(RECORDS / name, owner)
    program(run("postconf", "-h", "daemon_directory").strip() + "/torva_saslauthd", "#!/bin/sh\n")
    run_tool()
    for name in ("no_relay.re", "non_auth.re"):
        (TABLES / name).write_text("# nobody\n")
    run("postconf", "-MX", "pickup/unix")  # beside the tool's of type fifo
    settle(POSTFIX / "main.cf")
    shutil.copytree(POSTFIX, KEPT / "postfix", symlinks=True)
    shutil.copytree(PANEL, KEPT / "panel")
    shutil.copytree(TABLES, KEPT / "tables")
    for name in ("aliases", "aliases.db"):
        shutil.copy2(f"/etc/{name}", KEPT / name)


def restore():
    for kept, place in (("postfix", POSTFIX), ("panel", PANEL), ("tables", TABLES)):
        for path in place.iterdir():
            remove(path)
        shutil.copytree(KEPT / kept, place, symlinks=True, dirs_exist_ok=True)
    for name in ("aliases", "aliases.db"):
        shutil.copy2(KEPT / name, f"/etc/{name}")


def set_aliases(*lines):
    Path("/etc/aliases").write_text("\n".join(lines) + "\n")
    run("newaliases")


def run_tool():
    """The tool, with "postlog", whose type it cannot read, sheltered meanwhile."""
    shelter = Path("/run/rehearsal-shelter")
    remove(shelter)
    script = """
        set -euo pipefail
        program=rehearsal
        source "$1/messages.sh"
        source "$1/shelter.sh"
        shelter_services "$2"
        status=0
        "$3" || status=$?
        restore_services "$2"
        exit "$status"
    """
    run("bash", "-c", script, "rehearsal", SCRIPTS, shelter, TOOL, stderr=subprocess.DEVNULL)


class Rehearsed:
    def __init__(self, out):
        self.findings = [json.loads(line) for line in out.splitlines()]

    def __str__(self):
        return "\n".join(f"{f['level']:8}{f['text']}\n        -> {f['advice']}" for f in self.findings)

    def about(self, start):
        return [f for f in self.findings if f["text"].startswith(start)]


def await_end_of_cable():
    """The kernel removes the network of a rehearsal that has ended a moment later, and busy kernels
    take seconds."""
    wait_until(lambda: "torva-inside" not in [name for _, name in socket.if_nameindex()], "the end of the cable")


def rehearse(*words, **how):
    await_end_of_cable()
    return Rehearsed(run(REHEARSE, POSTFIX, HOST, *words, **how))


def start_rehearsal(**how):
    await_end_of_cable()
    return subprocess.Popen([REHEARSE, POSTFIX, HOST], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, **how)


def processes():
    """What runs in this sandbox, except its process 1 and this test."""
    found = {}
    for path in Path("/proc").glob("[0-9]*"):
        try:
            if path.name not in ("1", str(os.getpid())):
                found[int(path.name)] = (path / "comm").read_text().strip()
        except OSError:
            pass  # it has ended meanwhile
    return found


def described(path):
    status = path.lstat()
    kind = stat.S_IFMT(status.st_mode)
    contents = hashlib.sha256(path.read_bytes()).hexdigest() if kind == stat.S_IFREG else None
    return (oct(status.st_mode), status.st_uid, status.st_gid, status.st_mtime_ns, contents)


def tree(*roots):
    """Everything below some directories: type, mode, owner, time, contents."""
    found = {}
    for root in roots:
        for directory, names, files in os.walk(root):
            for name in names + files:
                found[os.path.join(directory, name)] = described(Path(directory, name))
    return found


def wait_until(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("never happened: " + what)
        time.sleep(0.01)


SENDMAIL = "sendmail root"
LOOPBACK = f"from loopback to root@{HOST}"
OUTSIDE = f"from outside to postmaster@{HOST}"
RELAYING = "relaying from outside to somebody@elsewhere.example"
MESSAGES = (SENDMAIL, LOOPBACK, OUTSIDE, RELAYING)


class RehearsalTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        if not KEPT.exists():
            KEPT.mkdir()
            make_host()

    def setUp(self):
        await_end_of_cable()  # of the test before
        restore()
        self.addCleanup(lambda: self.assertEqual(processes(), {}, "left running"))

    def assertLevels(self, rehearsed, levels, others=()):
        """The levels of the four messages, and how the texts of all other findings begin."""
        self.assertEqual([f["level"] for f in rehearsed.findings[:4]], levels.split(), rehearsed)
        for finding, message in zip(rehearsed.findings, MESSAGES):
            self.assertTrue(finding["text"].startswith(message + ": "), rehearsed)
        rest = rehearsed.findings[4:]
        self.assertEqual(len(rest), len(others), rehearsed)
        for finding, start in zip(rest, others):
            self.assertEqual(finding["level"], "warning", rehearsed)
            self.assertTrue(finding["text"].startswith(start), rehearsed)
        self.assertEqual({f["subject"] for f in rehearsed.findings}, {"delivery"}, rehearsed)
        self.assertFalse([f for f in rehearsed.findings if "\n" in f["text"] + f["advice"]], rehearsed)
        return rehearsed
