"""The world in which the tests of the whole program run.

Every test file is started inside scripts/sandbox, as
    python3 TEST.py PROGRAM [FAKETOOL] [TEST-NAME...]
It writes, again for each test, the few files that the program meets: main.cf,
master.cf, the account database, the aliases. FakeWorld puts tests/tools/fakes in
place of Postfix's tools, RealWorld leaves Postfix as it is.
"""

import ctypes
import os
import re
import shutil
import subprocess
import sys
import time
import unittest
import urllib.parse
from pathlib import Path

from calls import Call, Outcome
from goldens import golden
from lockfiles import LOCKS, held_locks

PROGRAM = ""
FAKETOOL = ""

POSTFIX = Path("/etc/postfix")
MAIN_CF = POSTFIX / "main.cf"
MASTER_CF = POSTFIX / "master.cf"
TORVA = Path("/var/spool/postfix/torva")
DISABLED = TORVA / "master.cf.disabled"
FAKE = Path("/run/fake")
CAPTURE = Path("/run/capture")
TABLES = ["virtual_domains", "virtual", "vmailbox", "aliases", "poplock", "blacklists", "transport"]
LOCAL_NETWORKS = "127.0.0.0/8, 192.0.2.10/32"
BLACKLISTS = "check_sender_access hash:/var/spool/postfix/torva/blacklists"
NON_AUTH = "check_client_access pcre:/var/spool/postfix/torva/non_auth.re"
NO_RELAY = "check_client_access pcre:/var/spool/postfix/torva/no_relay.re"
NO_DATABASE = (
    "Unable to open admin password file: No such file or directory\n"
    "Unable to connect to mysql database\n"
    "Unable to get mailnames from domain: localhost.localdomain\n"
)
CONFIGURATION_ERROR = "torva::mail::postfix::PostfixConfigurationError"
DATABASE_ERROR = "torva::mail::postfix::PostfixDatabaseError"

_libc = ctypes.CDLL(None, use_errno=True)


def fatal(error, text):
    return f"Fatal error: {error}({text})\n"


def sanitized():
    """Whether the program is a build with the address sanitizer."""
    return b"__asan_init" in Path(PROGRAM).read_bytes()


def refuse_outside_sandbox():
    """These tests remove and replace files below /etc and /usr."""
    mounts = Path("/proc/self/mountinfo").read_text().splitlines()
    points = {line.split()[4] for line in mounts}
    if os.environ.get("TORVA_SANDBOX") != "namespaces" or not {"/etc", "/var", "/usr", "/run"} <= points:
        sys.exit("only to be run inside scripts/sandbox")


def main():
    global PROGRAM, FAKETOOL
    refuse_outside_sandbox()
    words = sys.argv[1:]
    PROGRAM = words.pop(0)
    if words and os.access(words[0], os.X_OK):
        FAKETOOL = words.pop(0)
    # A process that a run leaves behind becomes our child, and is noticed.
    _libc.prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    unittest.main(argv=[sys.argv[0], *words], verbosity=2)


def as_mortal():
    """For preexec_fn: from now on file modes apply to root, too, see capabilities(7)."""
    for capability in (1, 2):  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        _libc.prctl(24, capability, 0, 0, 0)  # PR_CAPBSET_DROP


class Running:
    """A program that was started, to be waited for with finish()."""

    def __init__(self, world, process):
        self.world, self.process = world, process

    def wait_until(self, what, condition):
        deadline = time.monotonic() + 60
        while not condition():
            if self.process.poll() is not None:
                raise AssertionError(f"the program ended before {what}: {self.world.outcome(self.process.returncode).err}")
            if time.monotonic() > deadline:
                self.process.kill()
                raise AssertionError(f"never happened: {what}")
            time.sleep(0.005)

    def waits_for_lock(self):
        """Whether the program sleeps in flock(2), see /proc/locks in proc(5)."""
        waiting = re.compile(rf"-> FLOCK\s+ADVISORY\s+WRITE\s+{self.process.pid}\s")
        return waiting.search(Path("/proc/locks").read_text()) is not None

    def finish(self, timeout=60):
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("the program hangs") from None
        return self.world.outcome(status)


class World:
    """Files, accounts and the start of the program; see the two kinds below."""

    ACCOUNTS = Path("/etc/passwd")

    def __init__(self):
        self._passwd = "".join(
            line for line in self.ACCOUNTS.read_text().splitlines(True) if not line.startswith("popuser:")
        )
        self._mounts = []

    def reset(self):
        for point in reversed(self._mounts):
            _libc.umount2(str(point).encode(), 2)
        self._mounts = []
        for path in (TORVA, Path("/etc/kra"), LOCKS):
            remove(path)
        self.set_popuser(30, 31)
        Path("/etc/aliases").write_text("postmaster: root\n")
        remove(CAPTURE)
        CAPTURE.mkdir(parents=True)

    def set_popuser(self, uid=None, gid=None):
        """Writes the account of the mailbox owner; without arguments removes it."""
        line = "" if uid is None else f"popuser:x:{uid}:{gid}::/var/qmail/popuser:/usr/sbin/nologin\n"
        self.ACCOUNTS.write_text(self._passwd + line)

    def mount_small(self, point, options, keep=True):
        """A file system of a given size in place of a directory, with its contents or empty."""
        point = Path(point)
        kept = CAPTURE / "kept"
        if keep and point.exists():
            shutil.copytree(point, kept, symlinks=True)
        point.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755," + options, "small", point], check=True)
        self._mounts.append(point)
        if kept.exists():
            shutil.copytree(kept, point, symlinks=True, dirs_exist_ok=True)

    def bind(self, source, point):
        subprocess.run(["mount", "--bind", source, point], check=True)
        self._mounts.append(Path(point))

    def start(self, debug="1", env=None, stdin=subprocess.DEVNULL, stdout=None, stderr=None, **popen):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **(env or {})}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                environment[name] = os.environ[name]
        if debug is not None:
            environment["TORVA_INSTALLER_DEBUG"] = debug
        FAKE.mkdir(exist_ok=True)
        with open(FAKE / "progress", "wb") as err, open(CAPTURE / "stdout", "wb") as out:
            process = subprocess.Popen(
                [PROGRAM], env=environment, stdin=stdin, cwd=popen.pop("cwd", CAPTURE),
                stdout=out if stdout is None else stdout,
                stderr=err if stderr is None else stderr, **popen)
        return Running(self, process)

    def run(self, timeout=60, **how):
        return self.start(**how).finish(timeout)

    def outcome(self, status):
        return Outcome(status, read(CAPTURE / "stdout"), read(FAKE / "progress"), self.calls())

    def calls(self):
        return []

    def leftovers(self):
        """Temporary files, held locks and children that a run did not clean up."""
        found = [str(p) for p in sorted(POSTFIX.iterdir()) if p.name not in self.expected_in_etc()]
        if TORVA.is_dir():
            expected = {name + end for name in TABLES for end in ("", ".db")} | {DISABLED.name}
            found += [str(p) for p in sorted(TORVA.iterdir()) if p.name not in expected]
        found += ["held: " + name for name in held_locks()]
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
            found.append(f"child {pid}")
        except ChildProcessError:
            pass
        return found


class FakeWorld(World):
    """A small Postfix of fakes: every value is known, every start is logged."""

    def __init__(self):
        super().__init__()
        self.install()

    def install(self):
        for path in ("/usr/sbin/postconf", "/usr/sbin/postmap", "/usr/sbin/postalias", "/usr/bin/hostname"):
            remove(Path(path))
            shutil.copy(FAKETOOL, path)

    def reset(self):
        super().reset()
        self.extra_in_etc = set()
        remove(POSTFIX)
        POSTFIX.mkdir(mode=0o755)
        MAIN_CF.write_text("# the administrator's\n")
        MASTER_CF.write_bytes(golden("master.cf.before"))
        remove(FAKE)
        for name in ("params", "defaults"):
            (FAKE / name).mkdir(parents=True)
        self.defaults(
            config_directory="/etc/postfix", mydomain="localdomain", default_database_type="hash",
            alias_maps="hash:/etc/aliases, nis:mail.aliases", alias_database="hash:/etc/aliases",
            virtual_mailbox_domains="$virtual_mailbox_maps", virtual_alias_maps="$virtual_maps",
            virtual_alias_domains="$virtual_alias_maps", virtual_mailbox_maps="", transport_maps="",
            mynetworks="127.0.0.0/8 192.0.2.0/24", smtpd_sender_restrictions="",
            smtpd_recipient_restrictions="")
        self.params(
            myhostname="vm",
            mydestination="$myhostname, host.example.net, localhost.example.net, localhost")
        self.hostname("host.example.net\n")
        # Restores programs that a test has removed.
        for path in ("/usr/sbin/postconf", "/usr/sbin/postmap", "/usr/sbin/postalias", "/usr/bin/hostname"):
            if not os.path.isfile(path) or os.stat(path).st_size != os.stat(FAKETOOL).st_size:
                self.install()
                break
            os.chmod(path, 0o755)

    def defaults(self, **values):
        for name, value in values.items():
            (FAKE / "defaults" / name).write_bytes(value.encode())

    def params(self, **values):
        for name, value in values.items():
            (FAKE / "params" / name).write_bytes(value.encode())

    def param(self, name):
        for kind in ("params", "defaults"):
            if (FAKE / kind / name).exists():
                return read(FAKE / kind / name)
        return None

    def all_params(self):
        return {path.name: read(path) for path in (FAKE / "params").iterdir()}

    def hostname(self, text):
        """What "hostname -f" prints; None: it fails."""
        if text is None:
            remove(FAKE / "hostname")
        else:
            (FAKE / "hostname").write_bytes(text.encode())

    def rule(self, args=None, **fields):
        """How the fakes are to answer from now on, see faketool.cpp; first fit wins."""
        if args is not None:
            fields["args"] = "".join(word + "\x1f" for word in args)
        words = [f"{name}={urllib.parse.quote(str(value), safe='')}" for name, value in fields.items()]
        with open(FAKE / "rules", "a") as rules:
            rules.write("\t".join(words) + "\n")

    def forget(self):
        """Before another run over the same state: no calls yet, no rules."""
        for name in ("log", "count", "rules"):
            remove(FAKE / name)

    def calls(self):
        path = FAKE / "log"
        if not path.exists():
            return []
        # A tool that still runs may have written only a part of its last line.
        whole = path.read_text().rpartition("\n")[0]
        return [Call(line) for line in whole.splitlines()]

    def expected_in_etc(self):
        return {"main.cf", "master.cf"} | self.extra_in_etc


class RealWorld(World):
    """The machine's own Postfix, in the sandbox's private copy."""

    KEPT = Path("/run/keep")

    def __init__(self):
        super().__init__()
        if not self.KEPT.exists():
            shutil.copytree(POSTFIX, self.KEPT, symlinks=True)

    def reset(self):
        super().reset()
        POSTFIX.chmod(0o755)
        for path in POSTFIX.iterdir():
            remove(path)
        shutil.copytree(self.KEPT, POSTFIX, symlinks=True, dirs_exist_ok=True)
        remove("/etc/aliases.db")
        remove(FAKE)

    def expected_in_etc(self):
        return {path.name for path in self.KEPT.iterdir()}

    def outcome(self, status):
        """Without what postalias warns of: from Postfix 3.11 on, of each index of type hash."""
        outcome = super().outcome(status)
        outcome.err = re.sub(r"postalias: warning: .*\n", "", outcome.err)
        return outcome

    def tool(self, *argv, check=True, **how):
        return subprocess.run(argv, check=check, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **how)

    def write_main_cf(self, text):
        MAIN_CF.write_text(text)
        self.settle()

    def settle(self):
        """Postfix's programs sleep until main.cf is older than about two seconds."""
        past = time.time() - 10
        os.utime(MAIN_CF, (past, past))

    def values(self):
        """The parameters set in main.cf, as Postfix reads them."""
        pairs = (line.split(" =", 1) for line in self.tool("/usr/sbin/postconf", "-n").stdout.splitlines())
        return {name: value.strip() for name, value in pairs}

    def shelter(self):
        """Comments out the services of types that the program does not know."""
        for line in self.tool("/usr/sbin/postconf", "-M").stdout.splitlines():
            name, kind = line.split()[:2]
            if kind not in ("inet", "unix", "fifo"):
                self.tool("/usr/sbin/postconf", "-M#", f"{name}/{kind}")


class RunTest(unittest.TestCase):
    """One world for the tests of a file, rebuilt for each."""

    maxDiff = None
    longMessage = True
    kind = FakeWorld

    @classmethod
    def setUpClass(cls):
        cls.world = cls.kind()

    def setUp(self):
        self.world.reset()
        self.addCleanup(self.world.reset)

    def assertCompleted(self, outcome):
        self.assertEqual(outcome.status, 0, outcome.err)
        self.assertEqual(self.world.leftovers(), [])

    def assertFatal(self, outcome, line, said=None):
        """Ended by an error: status 1, and the line on both streams.

        line is the whole text from "Fatal error: " on; a compiled pattern is
        matched against it instead. said: the progress before it."""
        self.assertEqual(outcome.status, 1, outcome.err)
        start = outcome.err.find("Fatal error: ")
        self.assertGreaterEqual(start, 0, outcome.err)
        if isinstance(line, str):
            self.assertEqual(outcome.err[start:], line)
        else:
            self.assertRegex(outcome.err[start:], line)
        self.assertEqual(outcome.out[-len(outcome.err[start:]):], outcome.err[start:])
        if said is not None:
            self.assertEqual(outcome.err[:start], said)
        self.assertEqual(self.world.leftovers(), [])


def read(path):
    return Path(path).read_bytes().decode("utf-8", "surrogateescape")


def remove(path):
    path = Path(path)
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    elif path.is_symlink() or path.exists():
        path.unlink()
