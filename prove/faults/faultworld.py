"""The host that the sweep breaks: a configuration with an administrator's own lines, its
state after a run, and the states that are allowed. Runs inside scripts/sandbox, on top of
the world of the tests (tests/run/runworld.py).
"""

import ast
import os
import re
import stat
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests/run"))
from lockfiles import LOCKS, held_locks
from runworld import DISABLED, MAIN_CF, MASTER_CF, POSTFIX, TABLES, TORVA, RealWorld, remove

ALIASES = Path("/etc/aliases")
ALIASES_DB = Path("/etc/aliases.db")
HOSTNAME = Path("/usr/bin/hostname")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TORVA_INSTALLER_DEBUG": "1"}

# The name makes the run ask "hostname -f", the NIS map makes it rewrite alias_maps.
MAIN_TEXT = b"""\
# The administrator's own file.
compatibility_level = 3.6
myhostname = vm
mydestination = $myhostname, sandbox.example.net, localhost
alias_maps = hash:/etc/aliases, nis:mail.aliases
alias_database = hash:/etc/aliases
# on two lines
smtpd_recipient_restrictions = permit_mynetworks,
    reject_unauth_destination
inet_interfaces = loopback-only
virtual_alias_maps = pcre:/etc/postfix/own.pcre
smtpd_banner = $myhostname ESMTP # not a comment
"""
# An option on a line of its own, a carriage return, a file without a last newline.
MASTER_TEXT = b"""\
# The administrator's own services.
smtp inet n - y - 20 smtpd
  -o smtpd_tls_security_level=encrypt
pickup unix n - y 60 1 pickup
cleanup\tunix\tn - y - 0 cleanup

127.0.0.1:10026 inet n - n - 5 smtpd
\t# the administrator knows better
\t-o syslog_name=own
qmgr unix n - n 300 1 qmgr
#tlsmgr unix - - y 1000? 1 tlsmgr
rewrite unix - - y - - trivial-rewrite
local unix - n n - - local\r
own unix - n n - 3 pipe
  flags=F user=nobody argv=/bin/true ${recipient}"""
DISABLED_TEXT = b"""\
# put aside by the panel
tlsmgr unix - - y 300? 1 tlsmgr -v
uucp unix - n n - - pipe flags=F user=uucp argv=uux
"""
ALIASES_TEXT = b"postmaster: root\nroot: admin@example.org\n"
STRAY = re.compile(r"^(.+)\.[A-Za-z0-9]{6}$")


def run_tool(*argv):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)


def settle():
    past = time.time() - 10
    os.utime(MAIN_CF, (past, past))


def index_content(data):
    """An index file without the two things that differ each time it is built: the file's id
    in the meta page of the database library, of which parts remain in pages with fewer than
    a dozen records, and the time that postalias stores."""
    pages = [bytearray(data[at:at + 4096]) for at in range(0, len(data), 4096)]
    for page in pages:
        page[52:72] = bytes(20)
    return re.sub(rb"\d{10}", b"TIME", b"".join(pages))


class State:
    """The files that a run may touch: {path: (mode, owner, group, content)}."""

    def __init__(self):
        self.files, self.strays = {}, {}
        for directory in (POSTFIX, TORVA):
            for path in sorted(directory.iterdir()) if directory.is_dir() else []:
                self._take(path)
        for path in (ALIASES, ALIASES_DB):
            if path.exists():
                self._take(path)

    def _take(self, path):
        status = path.lstat()
        if not stat.S_ISREG(status.st_mode) or path.name in NOT_JUDGED:
            return
        data = path.read_bytes()
        content = index_content(data) if path.suffix == ".db" else data
        entry = (oct(status.st_mode), status.st_uid, status.st_gid, content)
        stray = STRAY.match(path.name)
        if stray and path.name not in KNOWN:
            self.strays[str(path.with_name(stray.group(1)))] = entry
        else:
            self.files[str(path)] = entry

    def text(self, path):
        entry = self.files.get(str(path))
        return entry[3] if entry else None

    def signature(self):
        return hash((tuple(sorted(self.files.items())), tuple(sorted(self.strays.items()))))

    def differences(self, wanted):
        names = sorted(set(self.files) | set(wanted.files))
        return [name for name in names if self.files.get(name) != wanted.files.get(name)]


# Names that belong below /etc/postfix; set by the world.
KNOWN = set()
NOT_JUDGED = ("filler",)


class FaultWorld(RealWorld):
    """One host, rebuilt for each fault."""

    def __init__(self, program):
        super().__init__()
        self.program = program
        self.set_popuser(30, 31)
        # What is left also fits into a small file system.
        for path in POSTFIX.iterdir():
            if path.name not in ("dynamicmaps.cf", "dynamicmaps.cf.d"):
                remove(path)
        (POSTFIX / "own.pcre").write_text("/^own@/ root\n")
        KNOWN.update({path.name for path in POSTFIX.iterdir()} | {"main.cf", "master.cf"})
        self.extra = set()

    def expected_in_etc(self):
        return KNOWN | self.extra

    def reset(self):
        self.unmount()
        self.extra = set()
        for path in POSTFIX.iterdir():
            if path.name not in KNOWN:
                remove(path)
        remove(TORVA)
        remove(LOCKS)
        remove(ALIASES_DB)
        TORVA.mkdir(mode=0o755)
        for path, text in ((MAIN_CF, MAIN_TEXT), (MASTER_CF, MASTER_TEXT), (DISABLED, DISABLED_TEXT), (ALIASES, ALIASES_TEXT)):
            remove(path)
            path.write_bytes(text)
        settle()

    def unmount(self):
        for point in reversed(self._mounts):
            subprocess.run(["umount", "-l", point], check=True)
        self._mounts = []

    def leftovers(self):
        found = [str(path) for path in POSTFIX.iterdir() if path.name not in self.expected_in_etc()]
        expected = {name + end for name in TABLES for end in ("", ".db")} | {DISABLED.name} | self.extra
        found += [str(path) for path in (TORVA.iterdir() if TORVA.is_dir() else []) if path.name not in expected]
        return found + ["held: " + name for name in held_locks()]


class Reference:
    """The results of undisturbed runs: the states that a fault may lead to. They are the same in
    every part of a sweep, which therefore passes them on."""

    def __init__(self, world):
        self.end, self.main_texts = _observe(world)
        # "hostname -f" may fail: the run says so, leaves the name alone and goes on.
        kept = HOSTNAME.with_name("hostname.kept")
        HOSTNAME.rename(kept)
        try:
            self.nameless_end, nameless_texts = _observe(world)
            world.reset()
            _run(world)
        finally:
            kept.rename(HOSTNAME)
        self.nameless_then_end = _run(world)
        self.main_texts |= nameless_texts | {self.nameless_then_end.text(MAIN_CF)}
        world.reset()
        self.start = State()


def _run(world, *prefix):
    done = subprocess.run([*prefix, world.program], env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd="/")
    if done.returncode != 0:
        sys.exit("an undisturbed run fails:\n" + done.stdout.decode())
    return State()


def _observe(world):
    """The end state of a first run, and the texts of main.cf on the way there, after each
    complete postconf -e."""
    log = Path("/run/capture/commands")
    world.reset()
    end = _run(world, "strace", "-f", "-qq", "-e", "trace=execve", "-s", "10000", "-o", str(log))
    again = _run(world)
    if again.differences(end):
        sys.exit(f"a second undisturbed run changes {again.differences(end)}")
    texts = {MAIN_TEXT}
    world.reset()
    for line in log.read_text().splitlines():
        found = re.search(r'execve\("/usr/sbin/postconf", (\["/usr/sbin/postconf", "-e", .*?\]), 0x.* = 0$', line)
        if found:
            settle()
            subprocess.run(ast.literal_eval(found.group(1)), check=True)
            texts.add(MAIN_CF.read_bytes())
    if end.text(MAIN_CF) not in texts:
        sys.exit("the postconf commands of a run, repeated without it, make another main.cf")
    return end, texts
