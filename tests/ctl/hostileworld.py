"""Other accounts of the host, what they put where the companion looks, and calls that have to
come to their end."""

import os
import pwd
import subprocess
from pathlib import Path

from ctlworld import CTL, TABLES, AroundARunTest, Outcome, ctl, kill_group, remove, write

POSTFIX_USER = pwd.getpwnam("postfix")
CUSTOMER = 4711
INDEX = TABLES / "virtual.db"
STORE = TABLES / "master.cf.disabled"
LIMIT = 90  # seconds, in place of never
TERABYTES = 1 << 42


def as_account(body, uid, gid):
    """Runs the body for another account, to its end."""
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            become(uid, gid)
            body()
            status = 0
        finally:
            os._exit(status)
    if os.waitpid(pid, 0)[1] != 0:
        raise AssertionError("the other account could not do that")


def become(uid, gid):
    os.setgroups([])
    os.setresgid(gid, gid, gid)
    os.setresuid(uid, uid, uid)


def as_postfix(body):
    as_account(body, POSTFIX_USER.pw_uid, POSTFIX_USER.pw_gid)


def plant_sparse(path=TABLES / "big"):
    with open(path, "wb") as file:
        file.truncate(TERABYTES)


def plant_deep(levels=2500):
    os.chdir(TABLES)
    for _ in range(levels):
        os.mkdir("d")
        os.chdir("d")


def bounded(*words, **how):
    """A call that has to come to its end."""
    process = subprocess.Popen([CTL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               start_new_session=True, **how)
    try:
        out, err = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        kill_group(process)
        process.communicate()
        raise AssertionError(f"{words} has not ended") from None
    return Outcome(process.returncode, out.decode(errors="replace"), err.decode(errors="replace"))


class HostileTest(AroundARunTest):
    def setUp(self):
        super().setUp()
        self.victim = Path("/var/spool/postfix/victim")
        write(self.victim, "root:secret:20228:0:99999:7:::\n", 0o600)
        self.addCleanup(remove, self.victim)

    def directory_of_customer(self, path):
        directory = Path(path)
        directory.mkdir()
        os.chown(directory, CUSTOMER, CUSTOMER)
        self.addCleanup(remove, directory)
        return directory

    def configure(self):
        """An apply, after which the tables directory belongs to "postfix", as it does once
        there is a mail-authentication database."""
        self.assertStatus(0, ctl("apply"))
        self.give_away()

    def give_away(self):
        TABLES.mkdir(exist_ok=True)
        os.chown(TABLES, POSTFIX_USER.pw_uid, 0)
        TABLES.chmod(0o770)
