"""The world in which the tests of torva-postfixctl run.

Every test file is started inside scripts/sandbox, as
    python3 TEST.py COMPANION PROGRAM [TEST-NAME...]
It installs both as the package does, and writes Postfix's files, again for each test. Postfix is
the machine's own.
"""

import hashlib
import json
import os
import shutil
import signal
import stat
import subprocess
import sys
import time
import unittest
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
INSTALLED = Path("/usr/lib/torva-postfix")
CTL = "/usr/sbin/torva-postfixctl"
TOOL = Path("/usr/sbin/torva-postfix-setup")
POSTFIX = Path("/etc/postfix")
MAIN_CF = POSTFIX / "main.cf"
MASTER_CF = POSTFIX / "master.cf"
TABLES = Path("/var/spool/postfix/torva")
PANEL = Path("/usr/lib/torva-9.0")
BACKUPS = Path("/var/backups/torva-postfix")
MARKER = BACKUPS / "unfinished"
KEPT = Path("/run/kept")
ACCOUNTS_AND_NAMES = ("passwd", "group", "aliases", "hosts")
PROGRAM = None
COMPANION = None


def main():
    global COMPANION, PROGRAM
    mounts = {line.split()[4] for line in Path("/proc/self/mountinfo").read_text().splitlines()}
    if os.environ.get("TORVA_SANDBOX") != "namespaces" or not {"/etc", "/var", "/usr", "/run"} <= mounts:
        sys.exit("only to be run inside scripts/sandbox")
    if not os.access("/usr/sbin/postconf", os.X_OK):
        print("SKIP: no Postfix on this machine")
        sys.exit(77)
    words = sys.argv[1:]
    COMPANION = words.pop(0)
    PROGRAM = words.pop(0)
    install()
    unittest.main(argv=[sys.argv[0], *words], verbosity=2)


def install():
    shutil.copytree(CHECKOUT / "scripts", INSTALLED / "scripts", symlinks=True)
    shutil.copy(COMPANION, CTL)
    shutil.copy(PROGRAM, TOOL)
    KEPT.mkdir()
    shutil.copytree(POSTFIX, KEPT / "postfix", symlinks=True)
    shutil.copytree("/var/spool/postfix", KEPT / "queue", symlinks=True,
                    ignore=lambda path, names: names if path != "/var/spool/postfix" else [])
    for name in ACCOUNTS_AND_NAMES:
        shutil.copy2(f"/etc/{name}", KEPT / name)


def remove(path):
    path = Path(path)
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    elif path.is_symlink() or path.exists():
        path.unlink()


def write(path, text, mode=0o644, owner=(0, 0)):
    """Writes a file that looks as if it had been there for long: Postfix's programs wait
    while main.cf is younger than two seconds."""
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    path.chmod(mode)
    os.chown(path, *owner)
    settle(path)


def settle(path):
    past = time.time() - 1000
    os.utime(path, (past, past))


def program(path, text):
    write(path, text, 0o755)


def run(*argv, check=True, **how):
    result = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            stdin=subprocess.DEVNULL, errors="replace", **how)
    if check and result.returncode != 0:
        raise AssertionError(f"{argv}: {result.returncode}: {result.stdout}")
    return result.stdout


def name_hashed_aliases():
    """Newer releases have other types of alias databases."""
    run("postconf", "-e", "alias_maps = hash:/etc/aliases", "alias_database = hash:/etc/aliases")
    settle(MAIN_CF)


def postconf(*argv):
    """What postconf prints, without its warnings; nothing when it fails."""
    return subprocess.run(["postconf", *argv], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          stdin=subprocess.DEVNULL).stdout


class Outcome:
    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __str__(self):
        return f"status {self.status}\n{self.out}\n{self.err}"

    def objects(self):
        return [json.loads(line) for line in self.out.splitlines()]

    def findings(self, *levels):
        return [o for o in self.objects() if o.get("level") in levels]


def ctl(*words, argv=(), **how):
    process = subprocess.run([*argv, CTL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, **how)
    return Outcome(process.returncode, process.stdout.decode(), process.stderr.decode(errors="replace"))


def start(*words, **how):
    """Starts the companion as the leader of a process group of its own."""
    return subprocess.Popen([CTL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL, start_new_session=True, **how)


def kill_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def wait_until(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"never happened: {what}")
        time.sleep(0.002)


def described(path):
    """What a path is: type, mode, owner, and contents or target."""
    path = os.fspath(path)
    return description(path, os.lstat(path))


def description(path, status):
    common = (oct(status.st_mode), status.st_uid, status.st_gid)
    if stat.S_ISLNK(status.st_mode):
        return (*common, os.readlink(path))
    if not stat.S_ISREG(status.st_mode):
        return common
    if path.startswith(("/etc/", "/var/spool/", "/srv/")):
        return (*common, int(status.st_mtime), checksum(path, status))
    return (*common, status.st_size, status.st_mtime_ns)


CHECKSUMS = {}  # of files that are not new, by path and by everything that a change would alter


def checksum(path, status):
    key = (path, status.st_dev, status.st_ino, status.st_size, status.st_mtime_ns, status.st_ctime_ns)
    if key in CHECKSUMS:
        return CHECKSUMS[key]
    result = hashlib.sha256(Path(path).read_bytes()).hexdigest()
    # A second change within one tick of the kernel's clock would leave the times alone.
    if time.time() - status.st_ctime > 1:
        CHECKSUMS[key] = result
    return result


# Left out: the backups, which are meant to change, and the files of Debian's package tools,
# which are three quarters of everything.
PASSED_OVER = {str(BACKUPS), "/var/cache", "/var/lib/apt", "/var/lib/dpkg"}


def tree():
    """Everything that a run or the companion could have changed on the host."""
    found = {}
    for root in ("/etc", "/var", "/srv", "/usr/sbin", "/usr/lib/torva-postfix"):
        describe_below(root, found)
    return found


def describe_below(directory, found):
    with os.scandir(directory) as entries:
        for entry in entries:
            if entry.path in PASSED_OVER:
                continue
            status = entry.stat(follow_symlinks=False)
            found[entry.path] = description(entry.path, status)
            if stat.S_ISDIR(status.st_mode):
                describe_below(entry.path, found)


def difference(before, after):
    return {path: (before.get(path), after.get(path))
            for path in sorted(before.keys() | after.keys()) if before.get(path) != after.get(path)}


def stamps():
    return sorted(path.name for path in BACKUPS.glob("[0-9]*"))


def scratch_files():
    return list(Path(os.environ["TMPDIR"]).glob("torva-postfixctl.*"))


class CtlTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        if POSTFIX.is_symlink():
            POSTFIX.unlink()
            remove("/etc/postfix-real")
            POSTFIX.mkdir()
        for path in POSTFIX.iterdir():
            remove(path)
        shutil.copytree(KEPT / "postfix", POSTFIX, symlinks=True, dirs_exist_ok=True)
        for name in ACCOUNTS_AND_NAMES:
            shutil.copy2(KEPT / name, f"/etc/{name}")
        run("hostname", "sandbox.example.net")
        for path in (TABLES, BACKUPS, PANEL, "/etc/kra", "/etc/aliases.db", "/run/lock/torva-postfix",
                     "/var/lock/files"):
            remove(path)
        for path in Path("/var/spool/postfix").iterdir():
            if path.is_dir() and not (KEPT / "queue" / path.name).exists():
                remove(path)
        PANEL.mkdir()
        for path in scratch_files(): # of a test that killed the companion
            remove(path)
        shutil.copy2(PROGRAM, TOOL)

    def replace_program(self, path, text):
        """A script in place of a program until the end of the test; the program is PATH.real."""
        real = Path(f"{path}.real")
        os.rename(path, real)
        self.addCleanup(os.replace, real, path)
        program(path, text.replace("$REAL", str(real)))

    def assertSame(self, before, what):
        self.assertEqual(difference(before, tree()), {}, what)

    def assertStatus(self, status, outcome):
        self.assertEqual(outcome.status, status, outcome)
        return outcome


class QuietCheckTest(CtlTest):
    """For what does not depend on the words of "postfix check", which starts some sixty programs:
    here it prints nothing."""

    def setUp(self):
        super().setUp()
        self.replace_program("/usr/sbin/postfix",
                             '#!/bin/sh\ncase "$*" in *check) ;; *) exec $REAL "$@" ;; esac\n')


class AroundARunTest(QuietCheckTest):
    """For what the companion does around a run: a short one."""

    def setUp(self):
        super().setUp()
        shutil.copy2(CHECKOUT / "tests/ctl/short_run", TOOL)


def name_local_domains():
    # Debian puts this domain in only where the host name has none.
    kept = [line for line in MAIN_CF.read_text().splitlines(True) if not line.startswith("mydestination")]
    write(MAIN_CF, "".join(kept) + "mydestination = $myhostname, localhost, localhost.localdomain\n")


def make_good_host():
    """The panel's part of a host on which everything is in order, except its database."""
    name_local_domains()
    for name in ("postfix-local", "postfix-queue", "postfix-mailman"):
        program(PANEL / name, "#!/bin/sh\n")
    for name in ("no_relay.re", "non_auth.re"):
        write(TABLES / name, "")
    write(POSTFIX / "postfix_default.pem", "certificate and key\n", 0o600)
    daemons = run("postconf", "-h", "daemon_directory").strip()
    program(f"{daemons}/torva_saslauthd", "#!/bin/sh\n")
