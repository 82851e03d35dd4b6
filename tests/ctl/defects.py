"""Hosts with one defect each, for check_test.py: how it is made, what check says about it,
and how the advice is carried out."""

import os
from pathlib import Path
from typing import Callable, NamedTuple, Optional

import ctlworld
import pairs
from cures import (as_it_stands, behind, built_in_one, by_apt_get, by_hand, installed, shell, stock, stock_main_cf,
                   without_its_last_line, written)
from ctlworld import BACKUPS, MAIN_CF, MARKER, MASTER_CF, PANEL, POSTFIX, TABLES, TOOL, program, remove, run, write

DAEMONS = Path("/usr/lib/postfix/sbin")
SOCKET = "/run/mysqld/mysqld.sock"
SHADOW = Path("/etc/kra/.kra.shadow")
PASSWORD = []  # of the panel's database, which is made together with it


class Defect(NamedTuple):
    name: str
    prepare: Callable            # makes it; what it returns cleans up after the test
    level: str
    subject: str
    text: str                    # part of the finding
    action: str = ""             # the whole advice
    cure: Optional[Callable] = None  # carries the advice out; None: nothing is amiss


# Making a defect.

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


def small_backups():
    BACKUPS.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "-o", "size=64k,mode=700", "none", BACKUPS)
    return lambda: run("umount", BACKUPS)


def ordinary_host_with_a_domain():
    pairs.both(pairs.MAIN, pairs.SMTP + pairs.SERVICES)


def map_without_index():
    write("/etc/postfix/virtual", "a@example.com b@example.com\n")
    main_cf("virtual_alias_maps = hash:/etc/postfix/virtual")()


def lock_directory_of_nobody():
    os.mkdir("/run/lock/torva-postfix")
    run("chown", "nobody", "/run/lock/torva-postfix")


def killed_apply():
    BACKUPS.mkdir(parents=True, mode=0o700)
    MARKER.write_text("apply -\n")


# Advice that is given for several defects.

CREATE_USER = "create the user; the panel's installer does"
INSTALL_PANEL = "install the panel's mail programs"
NOTHING_ELSE = "correct it; nothing else was looked at"
WRITE_TABLE = "have the panel write it; an empty one will do"
INSTALL_DAEMON = "install it; until then the service fails"
TAKE_OUT = ", or take it out of the configuration"
ALIAS_RULES = ("correct alias_maps and alias_database: a type of postconf -m, a directory that is there, plain "
               "characters")
ALIASES_SET_RIGHT = by_hand("postconf", "-e", "alias_maps=hash:/etc/aliases", "alias_database=hash:/etc/aliases")

DEFECTS = [
    Defect("no_postconf", replace_program("/usr/sbin/postconf", None), "stop", "program", "no Postfix",
           "apt-get install postfix postfix-pcre", by_apt_get("postfix postfix-pcre")),
    *(Defect(f"no_{name}", replace_program(f"/usr/sbin/{name}", None), "stop", "program",
             f"/usr/sbin/{name} is missing", "apt-get install --reinstall postfix",
             by_hand("mv", f"/usr/sbin/{name}.replaced", f"/usr/sbin/{name}"))
      for name in ("postmap", "postalias", "postfix")),
    Defect("killed_postmap", replace_program("/usr/sbin/postmap", "#!/bin/sh\nkill -KILL $$\n"), "stop", "map-type",
           "ended by signal 9", "correct it: postmap must create a table of the type hash and put a record into it",
           by_hand("mv", "/usr/sbin/postmap.replaced", "/usr/sbin/postmap")),
    Defect("no_tool", without(TOOL), "stop", "program", str(TOOL),
           "build it, or install the package", installed(TOOL)),
    Defect("no_hash", without_hash, "stop", "map-type", "hash",
           advice_without_hash(), with_hash),
    Defect("no_pcre", without_map_type("pcre"), "warning", "map-type", "pcre",
           "apt-get install postfix-pcre", by_apt_get("postfix-pcre")),
    Defect("no_popuser", without_account("passwd", "popuser"), "stop", "account", "popuser is missing",
           CREATE_USER, by_hand("useradd", "--system", "--gid", "popuser", "popuser")),
    Defect("no_popuser_group", without_account("group", "popuser"), "warning", "account", "popuser (group)",
           "create the group; the panel's installer does", by_hand("groupadd", "--system", "popuser")),
    Defect("no_mhandlers_user", without_account("passwd", "mhandlers-user"), "warning", "account", "mhandlers-user",
           CREATE_USER, by_hand("useradd", "--system", "--gid", "mhandlers-user", "mhandlers-user")),
    Defect("no_mailman", without_account("passwd", "mailman"), "warning", "account", "mailman is missing",
           CREATE_USER, by_hand("useradd", "--system", "--gid", "mailman", "mailman")),
    Defect("no_postfix_local", without(PANEL / "postfix-local"), "warning", "panel", "postfix-local is missing",
           INSTALL_PANEL, installed(PANEL / "postfix-local")),
    Defect("no_postfix_queue", without(PANEL / "postfix-queue"), "warning", "panel", "postfix-queue is missing",
           INSTALL_PANEL, installed(PANEL / "postfix-queue")),
    Defect("no_postfix_mailman", without(PANEL / "postfix-mailman"), "warning", "panel", "postfix-mailman is missing",
           INSTALL_PANEL, installed(PANEL / "postfix-mailman")),
    Defect("no_no_relay", without(TABLES / "no_relay.re"), "warning", "pcre-table",
           "no_relay.re is missing: smtpd answers 451", WRITE_TABLE, written(TABLES / "no_relay.re")),
    Defect("no_non_auth", without(TABLES / "non_auth.re"), "warning", "pcre-table",
           "non_auth.re is missing: smtpd answers 451", WRITE_TABLE, written(TABLES / "non_auth.re")),
    Defect("no_certificate", without(POSTFIX / "postfix_default.pem"), "warning", "certificate", "is missing",
           "put certificate and key there", written(POSTFIX / "postfix_default.pem", "both\n", 0o600)),
    Defect("only_loopback", without_addresses, "warning", "network", "only loopback",
           "first bring the network up", by_hand("ip", "address", "add", "192.0.2.10/24", "dev", "eth0")),
    Defect("read_only_directory", read_only, "stop", "directory", "/etc/postfix cannot be written",
           "put it on a file system that is not read-only", by_hand("mount", "-o", "remount,bind,rw", POSTFIX)),
    Defect("mounted_tables", mounted_tables, "stop", "directory", "torva is a mount point",
           "unmount it, or mount the directory above it", by_hand("umount", TABLES)),
    *(Defect(f"mounted_{path.stem}_cf", mounted_file(path), "stop", "directory", f"{path} is a mount point",
             "unmount it, or mount the directory above it", by_hand("umount", path)) for path in (MAIN_CF, MASTER_CF)),
    Defect("mounted_index", mounted_index, "stop", "directory", "/etc/aliases.db is a mount point",
           "unmount it, or mount the directory above it", by_hand("umount", "/etc/aliases.db")),
    Defect("mounted_below_tables", mounted_below_tables, "stop", "directory", "torva/below is a mount point",
           "unmount it, or mount the directory above it", by_hand("umount", TABLES / "below")),
    Defect("mounted_aliases", mounted_aliases, "ok", "directory", "can be written"),
    Defect("small_backups", small_backups, "stop", "room", "too little for a copy of the files",
           cure=lambda action: run("mount", "-o", f"remount,size={1024 + int(action.split()[2])}k", BACKUPS)),
    Defect("no_main_cf", without(MAIN_CF), "warning", "main.cf", "is missing",
           "reinstall Postfix's configuration", stock_main_cf),
    Defect("main_cf_without_newline", append(MAIN_CF, "relayhost ="), "warning", "main.cf", "no newline",
           "apply and preview supply it; else: echo >>/etc/postfix/main.cf", behind("else: ")),
    Defect("main_cf_link", linked_main_cf, "warning", "main.cf", "symbolic link",
           "apply and preview keep it; else make it a file",
           by_hand("cp", "--remove-destination", "/etc/postfix-site/main.real", MAIN_CF)),
    Defect("main_cf_with_two_names", hard_link(MAIN_CF), "warning", "main.cf", "has 2 names (hard links)",
           "cp -p {0} {0}.new && mv {0}.new {0}".format(MAIN_CF), as_it_stands),
    Defect("master_cf_with_two_names", hard_link(MASTER_CF), "warning", "master.cf", "has 2 names (hard links)",
           "cp -p {0} {0}.new && mv {0}.new {0}".format(MASTER_CF), as_it_stands),
    Defect("main_cf_not_read", append(MAIN_CF, "inet_interfaces\n"), "stop", "main.cf", "missing '='",
           NOTHING_ELSE, without_its_last_line(MAIN_CF)),
    Defect("origin_file_missing", main_cf("myorigin = /etc/no-mailname"), "stop", "main.cf", "/etc/no-mailname",
           NOTHING_ELSE, written("/etc/no-mailname", "example.net\n")),
    Defect("main_cf_fifo", fifo(MAIN_CF), "stop", "main.cf", "/etc/postfix/main.cf is not a regular file",
           NOTHING_ELSE, lambda _: (remove(MAIN_CF), stock_main_cf(_))),
    Defect("master_cf_fifo", fifo(MASTER_CF), "stop", "master.cf", "/etc/postfix/master.cf is not a regular file",
           NOTHING_ELSE, lambda _: (remove(MASTER_CF), stock("master.cf")(_))),
    *(Defect(f"no_{name}", main_cf(f"{name} = /no/such"), "stop", "main.cf", f"{name}, /no/such, is not a directory",
             f"correct it: postconf -X {name} restores the built-in one", built_in_one)
      for name in ("command_directory", "meta_directory", "queue_directory", "shlib_directory")),
    Defect("empty_setgid_group", main_cf("setgid_group ="), "stop", "main.cf", "setgid_group",
           NOTHING_ELSE, without_its_last_line(MAIN_CF)),
    Defect("unknown_default_user", main_cf("default_privs = nobody-here"), "stop", "main.cf", "nobody-here",
           NOTHING_ELSE, without_its_last_line(MAIN_CF)),
    Defect("entry_cut_short", master_cf("a unix - - y"), "stop", "master.cf", "bad field count",
           NOTHING_ELSE, without_its_last_line(MASTER_CF)),
    # A name that main.cf has in those of its parameters.
    Defect("unknown_type", master_cf("smtpd tcp - - y - - smtpd"), "stop", "master.cf", 'invalid type field "tcp"',
           NOTHING_ELSE, without_its_last_line(MASTER_CF)),
    Defect("empty_master_cf", lambda: write(MASTER_CF, ""), "stop", "master.cf", "the file is empty",
           "correct it, or comment the entry out for the run", stock("master.cf")),
    Defect("empty_store", empty_store, "stop", "master.cf", "master.cf.disabled is not parsed",
           "correct it, or move it away", by_hand("mv", TABLES / "master.cf.disabled", "/run/tmp")),
    Defect("upper_case_name", master_cf("SMTPS inet n - y - - smtpd"),
           "ok", "master.cf", "SMTPS/inet: not parsed by torva-postfix-setup"),
    Defect("address_in_brackets", master_cf("[::1]:25 inet n - y - - smtpd"), "ok", "master.cf", "[::1]:25/inet"),
    Defect("comment_behind_a_word", master_cf("a unix - - y - - smtp # fast"), "ok", "master.cf", "a/unix"),
    Defect("not_ascii", master_cf("a unix - - y - - smtp -o x=\u00e9"), "ok", "master.cf", "a/unix"),
    Defect("foreign_type", master_cf("sub-x pass - - y - - smtpd"), "ok", "master.cf", "sub-x/pass"),
    Defect("foreign_with_slash", master_cf("a/b pass - - y - - smtpd"), "ok", "master.cf", "a/b/pass"),
    Defect("private_inet", master_cf("587 inet - - y - - smtpd"), "warning", "service", "587/inet is private",
           "postconf -F 587/inet/private=n", as_it_stands),
    Defect("port_25_twice", master_cf("25 inet n - y - - smtpd"), "warning", "service", "one endpoint",
           "postconf -MX 25/inet", as_it_stands),
    Defect("address_and_port_twice",
           master_cf("127.0.0.1:smtp inet n - y - - smtpd\n127.0.0.1:25 inet n - y - - smtpd"),
           "warning", "service", "one endpoint", "postconf -MX 127.0.0.1:smtp/inet", as_it_stands),
    Defect("no_daemon", master_cf("a unix - - y - - no-such-daemon"),
           "warning", "service", f"no {DAEMONS}/no-such-daemon",
           INSTALL_DAEMON, installed(DAEMONS / "no-such-daemon")),
    Defect("no_sasl_daemon", without(DAEMONS / "torva_saslauthd"), "warning", "service", "torva_saslauthd",
           INSTALL_DAEMON, installed(DAEMONS / "torva_saslauthd")),
    Defect("wrong_daemon_directory", main_cf("daemon_directory = /no/such/directory"), "warning", "service",
           "daemon_directory, /no/such/directory, has no daemons of Postfix",
           "correct it: postconf -X daemon_directory restores the built-in one",
           built_in_one),
    Defect("no_hash_file", main_cf("virtual_alias_maps = hash:$config_directory/virtual"), "warning", "map",
           "/etc/postfix/virtual.db",
           f"write /etc/postfix/virtual and run postmap hash:/etc/postfix/virtual{TAKE_OUT}",
           lambda action: (write("/etc/postfix/virtual", ""), behind(" run ")(action))),
    Defect("no_index_of_a_file", map_without_index, "warning", "map", "/etc/postfix/virtual.db",
           f"postmap hash:/etc/postfix/virtual{TAKE_OUT}", as_it_stands),
    Defect("no_texthash_file", main_cf("transport_maps = texthash:/etc/transport"),
           "warning", "map", "no /etc/transport",
           f"write /etc/transport{TAKE_OUT}", written("/etc/transport")),
    Defect("no_map_of_a_service", master_cf("587 inet n - y - - smtpd -o smtpd_client_restrictions=cidr:/etc/no.cidr"),
           "warning", "map", "no /etc/no.cidr",
           f"write /etc/no.cidr{TAKE_OUT}", by_hand("postconf", "-PX", "587/inet/smtpd_client_restrictions")),
    Defect("aliases_as_recipients", main_cf("local_recipient_maps = unix:passwd.byname $alias_maps"), "ok", "map",
           "the files of all maps"),
    Defect("no_alias_file_that_the_run_leaves_alone", main_cf("alias_maps = hash:/etc/aliases, texthash:/etc/no-lists"),
           "warning", "map", "no /etc/no-lists", "write /etc/no-lists, or take it out of the configuration",
           written("/etc/no-lists")),
    Defect("map_of_postfix_itself", main_cf("address_verify_map = btree:$data_directory/verify_cache"), "ok", "map",
           "the files of all maps"),
    Defect("alias_directory", main_cf("alias_maps = hash:/no/such/aliases"), "stop", "aliases",
           "hash:/no/such/aliases cannot", ALIAS_RULES, ALIASES_SET_RIGHT),
    Defect("alias_reference", main_cf("alias_maps = hash:$config_directory/aliases"), "ok", "aliases", "alias_maps"),
    Defect("alias_type", main_cf("alias_database = dbm:/etc/aliases"), "stop", "aliases", "dbm:/etc/aliases cannot",
           ALIAS_RULES, ALIASES_SET_RIGHT),
    Defect("aliases_without_commas", main_cf("alias_maps = hash:/etc/aliases hash:/etc/no-aliases"), "stop", "aliases",
           'the run reads "hash:/etc/aliases hash:/etc/no-aliases" as one database',
           "postconf -e 'alias_maps=hash:/etc/aliases, hash:/etc/no-aliases'", as_it_stands),
    Defect("nis_without_a_comma", main_cf("alias_maps = nis:mail.aliases hash:/etc/aliases"), "stop", "aliases",
           'the run reads "nis:mail.aliases hash:/etc/aliases" as one database',
           "postconf -e 'alias_maps=nis:mail.aliases, hash:/etc/aliases'", as_it_stands),
    Defect("aliases_that_the_run_leaves_alone", main_cf("alias_maps = proxy:hash:/etc/a hash:/etc/no-b ldap:/etc/c"), "ok",
           "aliases", "alias_maps"),
    Defect("alias_fifo", fifo_among_the_aliases, "stop", "aliases", "/etc/alias-fifo is not a regular file",
           "make it a file, or take it out of alias_maps and alias_database", ALIASES_SET_RIGHT),
    Defect("root_is_led_nowhere", ordinary_host_with_a_domain, "warning", "mydestination",
           "root@, postmaster@ and mailer-daemon@mail.example.net goes to localhost.localdomain",
           "postconf -e 'mydestination=$myhostname, localhost.example.net, localhost, localhost.localdomain'",
           as_it_stands),
    Defect("records", filled_table, "ok", "records", "1 in virtual: the run drops them, apply puts them back"),
    Defect("damaged_table", damaged_table, "stop", "records", "cannot be read: ",
           "have the panel write it again",
           lambda _: (write(TABLES / "virtual", ""), run("postmap", f"hash:{TABLES}/virtual"))),
    Defect("no_database", no_database,
           "warning", "database", "kra does not answer: there is no /run/mysqld/mysqld.sock",
           "start the panel's database before the run", by_hand("mv", f"{SOCKET}.away", SOCKET)),
    Defect("no_database_password", without(SHADOW),
           "warning", "database", "there is no password in /etc/kra/.kra.shadow",
           "have the panel write it before the run", lambda _: write(SHADOW, PASSWORD[0], 0o600)),
    Defect("wrong_database_password", wrong_password, "warning", "database", "Access denied for user 'admin'",
           f"set that right before the run; the password is in {SHADOW}", lambda _: write(SHADOW, PASSWORD[0], 0o600)),
    Defect("lock_of_somebody_else", lock_directory_of_nobody, "stop", "lock", "is not root's alone",
           "see who made it", by_hand("rm", "-r", "/run/lock/torva-postfix")),
    Defect("killed_before_it_changed_anything", killed_apply, "warning", "unfinished",
           "apply was killed before it changed anything", "torva-postfixctl rollback, or apply", as_it_stands),
]
