"""What the attacks share: the victims, programs that run for a bounded time, attackers that
run as another account. Runs inside scripts/sandbox.
"""

import os
import pwd
import stat
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TREE / "tests/run"), str(TREE / "prove/faults")]
from faultworld import FaultWorld
from lockfiles import LOCKS
from runworld import DISABLED, MAIN_CF, MASTER_CF, TABLES, TORVA, refuse_outside_sandbox, remove

STRANGER = 4711
LIMIT = 60
SECRET = b"what nobody else may read\n"
# On the file system of the tables, so that it can have a hard link in their directory.
VICTIM = Path("/var/spool/postfix-attack-victim")
MISSING = Path("/var/spool/postfix-attack-missing")
DATABASE = TORVA / "passwd.db"


class Broken(AssertionError):
    """What an attack has achieved."""


def list_of(directory):
    """The paths in a directory, which an attacker may take away meanwhile."""
    try:
        return sorted(directory.iterdir())
    except OSError:
        return []


def state(path):
    try:
        status = path.lstat()
    except FileNotFoundError:
        return None
    content = path.read_bytes() if stat.S_ISREG(status.st_mode) else None
    return oct(status.st_mode), status.st_uid, status.st_gid, content


class Ended:
    def __init__(self, status, text, seconds):
        self.status, self.text, self.seconds = status, text, seconds

    def __str__(self):
        return f"status {self.status}, {self.text.decode(errors='replace')[-600:]}"


class World:
    """A host with the victims: a file that root alone may read, and a name that nobody has."""

    def __init__(self, program, helpers, short):
        self.program, self.helpers, self.short = program, helpers, short
        self.host = FaultWorld(program)
        self.postfix = pwd.getpwnam("postfix")
        self.longest = 0.0
        self.tried = 0

    def reset(self):
        self.host.reset()
        remove(MISSING)
        remove(VICTIM)
        VICTIM.write_bytes(SECRET)
        VICTIM.chmod(0o600)
        self.victim = state(VICTIM)
        # As the mail-authentication database leaves it.
        os.chown(TORVA, self.postfix.pw_uid, 0)
        TORVA.chmod(0o770)

    def count(self, short, full):
        return short if self.short else full

    def some(self, *of_short, rest=()):
        """What to try: the first ones in both forms, the rest only in the full one."""
        return of_short if self.short else (*of_short, *rest)

    def run(self, argv=None, limit=LIMIT, **how):
        """Runs one program, by default the tool; it must end in time."""
        self.tried += 1
        begin = time.monotonic()
        process = subprocess.Popen([str(word) for word in argv or [self.program]],
                                   **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                                      "stderr": subprocess.STDOUT, "cwd": "/", **how})
        try:
            text, _ = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Broken(f"{' '.join(process.args)} has not ended after {limit} seconds") from None
        seconds = time.monotonic() - begin
        self.longest = max(self.longest, seconds)
        return Ended(process.returncode, text or b"", seconds)

    def library(self, verb, count=1, limit=LIMIT, **how):
        """Runs the library program; its last line says how often it succeeded and failed."""
        ended = self.run([self.helpers / "attack_library_program", verb, count], limit, **how)
        self.tried += count - 1
        return ended

    def as_account(self, body, uid=STRANGER, gid=STRANGER):
        """Runs the body as another account, and waits for its end."""
        pid = os.fork()
        if pid == 0:
            status = 1
            try:
                os.setgroups([])
                os.setresgid(gid, gid, gid)
                os.setresuid(uid, uid, uid)
                body()
                status = 0
            except OSError as error:
                print(f"the attacker: {error}", file=sys.stderr)
            finally:
                os._exit(status)
        self.expect(os.waitpid(pid, 0)[1] == 0, "the attack itself has failed, see above")

    def as_postfix(self, body):
        self.as_account(body, self.postfix.pw_uid, self.postfix.pw_gid)

    def expect(self, condition, what):
        if not condition:
            raise Broken(what)

    def expect_unharmed(self):
        """The victim is as before, the missing name still does not exist, and no file that
        others may read has the victim's content."""
        now = state(VICTIM)
        self.expect(now == self.victim, f"the victim has changed: {now and (*now[:3], (now[3] or b'')[:40])}")
        self.expect(not os.path.lexists(MISSING), "a file was created through a link of the attacker")
        for directory in (TORVA, LOCKS):
            for path in list_of(directory):
                try:
                    status = path.lstat()
                except FileNotFoundError:
                    continue
                if not stat.S_ISREG(status.st_mode) or path.samefile(VICTIM):
                    continue
                open_to_others = status.st_mode & 0o044 or status.st_uid != 0
                self.expect(not (open_to_others and SECRET.strip() in path.read_bytes()),
                            f"{path} exposes the victim's content")

    def expect_complete(self, ended):
        self.expect(ended.status == 0 and b"127.0.0.1:10027" in MASTER_CF.read_bytes(),
                    f"the run is not complete: {ended}")


class Swapper:
    """An attacker with the account "postfix", in the tables directory, see swapper.cpp."""

    def __init__(self, world, prefix, target):
        self.process = subprocess.Popen(
            [world.helpers / "attack_swapper", "postfix", TORVA, prefix, target],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdout.readline()
        self.swapped = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        text, _ = self.process.communicate()
        self.swapped = int(text or 0)


class LockHolder:
    """An attacker that holds the locks of all indexes in some directories, see lock_holder.cpp."""

    def __init__(self, world, user, directories):
        self.process = subprocess.Popen(
            [str(word) for word in (world.helpers / "attack_lock_holder", user, *directories)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdout.readline()
        self.taken = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        text, _ = self.process.communicate()
        self.taken = int(text or 0)
