"""How hosts get their defects: functions that make one, or that answer a function that does."""

import os
import subprocess
from pathlib import Path

import pairs
from ctlworld import BACKUPS, MAIN_CF, MARKER, MASTER_CF, POSTFIX, TABLES, kill_group, program, remove, run, wait_until, write

DAEMONS = Path("/usr/lib/postfix/sbin")
SOCKET = "/run/mysqld/mysqld.sock"
SHADOW = Path("/etc/kra/.kra.shadow")
PASSWORD = []  # of the panel's database, which is made together with it


def without(path):
    return lambda: remove(path)


def directory(path):
    def change():
        if path.exists():
            remove(path)
        path.mkdir()
    return change


def link(path, target):
    def change():
        remove(path)
        os.symlink(target, path)
    return change


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
            program(path, text)

        def back():
            if kept.exists():
                os.replace(kept, path)
        return back
    return change


def without_map_type(name):
    return replace_program("/usr/sbin/postconf",
                           f'#!/bin/sh\n/usr/sbin/postconf.replaced "$@" | grep -vx {name}\n')


def without_hash():
    main_cf("alias_maps =\nalias_database =")()
    without_type = without_map_type("hash")()
    without_tables = replace_program(
        "/usr/sbin/postmap", "#!/bin/sh\necho 'postmap: fatal: unsupported map type: hash' >&2\nexit 1\n")()
    return lambda: (without_type(), without_tables())


def with_hash(_):
    for name in ("postconf", "postmap"):
        os.replace(f"/usr/sbin/{name}.replaced", f"/usr/sbin/{name}")


def advice_without_hash():
    if "non_bdb_migration_level =" not in run("postconf", "-d", "non_bdb_migration_level"):
        return "install a Postfix with Berkeley DB, such as Debian's"
    return ("postconf default_database_type=lmdb && postfix non-bdb enable-redirect; then build each hash table of the "
            "configuration again, with postmap or postalias (see NON_BERKELEYDB_README)")


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
    return lambda: run("umount", str(TABLES), check=False)


def mounted_file(path):
    """As a container has it that is given one file of the machine."""
    def change():
        run("mount", "--bind", str(path), str(path))
        return lambda: run("umount", str(path), check=False)
    return change


def mounted_index():
    run("postalias", "hash:/etc/aliases")
    return mounted_file("/etc/aliases.db")()


def mounted_below_tables():
    (TABLES / "below").mkdir()
    return mounted_file(TABLES / "below")()


def mounted_aliases():
    write("/etc/aliases", "postmaster: root\n")
    return mounted_file("/etc/aliases")()


def without_addresses():
    run("ip", "address", "flush", "dev", "eth0")
    return lambda: run("ip", "address", "replace", "192.0.2.10/24", "dev", "eth0")


def no_database():
    os.rename(SOCKET, f"{SOCKET}.away")
    return lambda: os.path.exists(f"{SOCKET}.away") and os.rename(f"{SOCKET}.away", SOCKET)


def wrong_password():
    SHADOW.write_text("wrong\n")


def link_clean_up():
    for path in ("/etc/postfix-site", "/etc/mail", "/etc/mail-aliases"):
        remove(path)


def linked_main_cf():
    pairs.links()
    real = Path("/etc/postfix-site/main.real")
    write(real, real.read_text().replace("    localhost\n", "    localhost, localhost.localdomain\n"), 0o640)
    return link_clean_up


def hard_link(path):
    return lambda: os.link(path, f"{path}.other")


def fifo_among_the_aliases():
    os.mkfifo("/etc/alias-fifo")
    main_cf("alias_maps = hash:/etc/alias-fifo")()
    return lambda: remove("/etc/alias-fifo")


def fifo(path):
    return lambda: (remove(path), os.mkfifo(path)) and None


def damaged_table():
    write(TABLES / "virtual.db", "no index\n")


LOCK_HOLDERS = []


def locked_table():
    filled_table()
    LOCK_HOLDERS.append(subprocess.Popen(["flock", TABLES / "virtual.db", "sleep", "1000"], start_new_session=True))
    wait_until(lambda: subprocess.call(["flock", "--nonblock", TABLES / "virtual.db", "true"]) != 0, "the lock is held")
    return end_lock_holder


def end_lock_holder(_=None):
    while LOCK_HOLDERS:
        kill_group(LOCK_HOLDERS.pop())


def small_backups():
    BACKUPS.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "-o", "size=64k,mode=700", "none", BACKUPS)
    return lambda: run("umount", BACKUPS)


def ordinary_host_with_a_domain():
    pairs.both(pairs.MAIN, pairs.SMTP + pairs.SERVICES)


def destinations(element, text):
    """A file or a table of the domains that are the host's own."""
    def change():
        write("/etc/postfix/dests", text)
        if "hash:" in element:
            run("postmap", "hash:/etc/postfix/dests")
        main_cf(f"mydestination = {element}")()
    return change


def map_without_index():
    write("/etc/postfix/virtual", "a@example.com b@example.com\n")
    main_cf("virtual_alias_maps = hash:/etc/postfix/virtual")()


def backups_of_a_group():
    BACKUPS.mkdir(parents=True)
    BACKUPS.chmod(0o770)


def mysql_table(has_type, has_file):
    """As if the package postfix-mysql were installed, and before it is."""
    def change():
        main_cf("virtual_alias_maps = proxy:mysql:/etc/postfix/users.cf")()
        if has_file:
            write("/etc/postfix/users.cf", "dbname = mail\n")
        real = "/usr/sbin/postconf.without"
        os.rename("/usr/sbin/postconf", real)
        head = f'#!/bin/sh\ncase $1 in -m) {real} -m | grep -vx mysql'
        tail = f' ;; *) exec {real} "$@" ;; esac\n'
        program("/usr/sbin/postconf.replaced", f"{head}; echo mysql{tail}")
        program("/usr/sbin/postconf", f"{head}; echo mysql{tail}" if has_type else head + tail)
        return lambda: (remove("/usr/sbin/postconf.replaced"), os.replace(real, "/usr/sbin/postconf"))
    return change


def lock_directory_of_nobody():
    os.mkdir("/run/lock/torva-postfix")
    run("chown", "nobody", "/run/lock/torva-postfix")


def killed_apply():
    BACKUPS.mkdir(parents=True, mode=0o700)
    MARKER.write_text("apply -\n")
