"""Configurations with the oddities of real ones. Each pair is a function that writes
main.cf, master.cf and what belongs to them; the docstring says what is odd."""

import os
import shutil
import subprocess
from pathlib import Path

from ctlworld import MAIN_CF, MASTER_CF, POSTFIX, TABLES, remove, run, write

MAIN = """\
# See /usr/share/postfix/main.cf.dist for a commented version
compatibility_level = 3.6
smtpd_banner = $myhostname ESMTP
biff = no
myhostname = mail.example.net
mydestination = $myhostname, localhost.example.net,
    localhost
alias_maps = hash:/etc/aliases
alias_database = hash:/etc/aliases
mynetworks = 127.0.0.0/8 [::1]/128
inet_interfaces = loopback-only
recipient_delimiter = +
"""

SERVICES = """\
pickup    unix  n       -       y       60      1       pickup
cleanup   unix  n       -       y       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
tlsmgr    unix  -       -       y       1000?   1       tlsmgr
rewrite   unix  -       -       y       -       -       trivial-rewrite
bounce    unix  -       -       y       -       0       bounce
defer     unix  -       -       y       -       0       bounce
trace     unix  -       -       y       -       0       bounce
verify    unix  -       -       y       -       1       verify
flush     unix  n       -       y       1000?   0       flush
proxymap  unix  -       -       n       -       -       proxymap
smtp      unix  -       -       y       -       -       smtp
relay     unix  -       -       y       -       -       smtp
        -o syslog_name=postfix/$service_name
error     unix  -       -       y       -       -       error
retry     unix  -       -       y       -       -       error
discard   unix  -       -       y       -       -       discard
local     unix  -       n       n       -       -       local
virtual   unix  -       n       n       -       -       virtual
lmtp      unix  -       -       y       -       -       lmtp
anvil     unix  -       -       y       -       1       anvil
scache    unix  -       -       y       -       1       scache
"""

SMTP = "smtp      inet  n       -       y       -       -       smtpd\n"
POSTLOG = "postlog   unix-dgram n  -       n       -       1       postlogd\n"


def both(main, master):
    write(MAIN_CF, main)
    write(MASTER_CF, master)


def stock():
    """Debian 12 as it is installed."""


def crlf():
    """CR LF line ends."""
    master = "# edited elsewhere\r\n" + (SMTP + SERVICES + POSTLOG).replace("\n", "\r\n")
    both(MAIN.replace("\n", "\r\n"), master)


def no_final_newline():
    """No newline at the end of either; the last entry is one to shelter."""
    both((MAIN + "relayhost = [relay.example.net]").encode(), SMTP + SERVICES + POSTLOG.rstrip("\n"))


def comments_inside():
    """Comments, blank and empty lines inside entries, sheltered ones among them."""
    both(MAIN.replace("biff = no\n", "  # indented\n\nbiff = no\n"), SMTP + """\
# before the first option
  -o smtpd_tls_security_level=may

   # indented, between two options
	-o smtpd_client_restrictions=
""" + SERVICES + POSTLOG + """\
#postlog   unix-dgram n  -       n       -       1       postlogd
  -o syslog_name=one
    \t
# inside
  -o syslog_name=two
smtpd     pass  -       -       y       -       -       smtpd
#smtpd     pass  -       -       y       -       -       smtpd
""")


def trailing_blanks():
    """Blanks and tabs at the ends of lines, and lines of nothing else."""
    both(MAIN.replace("\n", " \t\n").replace("biff", "\t \nbiff"),
         (SMTP + SERVICES).replace("\n", "  \n") + POSTLOG.replace("\n", "\t\n") + "   \n\t\n")


def names_and_options():
    """Ports as numbers, with and without an address; addresses in brackets, which the tool
    does not parse; options in braces, with blanks inside."""
    both(MAIN + "smtpd_client_restrictions = check_client_access inline:{ {192.0.2.1 = REJECT go away} }\n", """\
25 inet n - y - - smtpd
  -o { smtpd_recipient_restrictions = permit_mynetworks, reject }
  -o {smtpd_banner=hello there}
127.0.0.1:587 inet n - y - - smtpd
  -o smtpd_sasl_auth_enable=yes
[::1]:587 inet n - y - - smtpd
  -o syslog_name=six
""" + SERVICES + POSTLOG.replace("postlogd", "postlogd { -o } { a b }") + """\
[127.0.0.1]:2465 inet n - y - - smtpd
465 inet n - y - - smtpd -o smtpd_tls_wrappermode=yes
""")


def duplicates():
    """Entries and parameters more than once, sheltered ones too."""
    both(MAIN + "biff = yes\nrelayhost =\nbiff = no\n",
         SMTP + POSTLOG + SERVICES + SMTP.replace(" y ", " n ") + "  -o a=b\n" + POSTLOG + POSTLOG.replace("1", "2"))


def links():
    """main.cf behind two links, one relative; master.cf and the aliases behind one."""
    site = Path("/etc/postfix-site")
    write(site / "main.real", MAIN.replace("hash:/etc/aliases", "hash:/etc/mail-aliases"), 0o640)
    write(site / "master.cf", SMTP + SERVICES + POSTLOG, 0o600)
    write("/etc/mail/aliases", "root: admin\n")
    for link, target in ((site / "main.link", "main.real"), (MAIN_CF, "../postfix-site/main.link"),
                         (MASTER_CF, "/etc/postfix-site/master.cf"), (Path("/etc/mail-aliases"), "mail/aliases")):
        remove(link)
        os.symlink(target, link)


def mode_0640():
    """Not for everybody to read, with an owner and a group of their own."""
    both(MAIN, SMTP + SERVICES + POSTLOG)
    group = int(run("id", "-g", "postfix"))
    for path in (MAIN_CF, MASTER_CF):
        os.chown(path, 0, group)
        path.chmod(0o640)


def used_by_the_panel():
    """An earlier run, and what the panel has put into its directory since."""
    both(MAIN, SMTP + SERVICES + POSTLOG)
    write("/etc/aliases", "root: admin\n")
    lay_out_tables()


def lay_out_tables():
    TABLES.mkdir()
    os.chown(TABLES, int(run("id", "-u", "postfix")), 0)
    TABLES.chmod(0o770)
    write(TABLES / "virtual", "a@example.com b@example.com\n")
    write(TABLES / "virtual_domains", "example.com 1\n")
    run("postmap", f"hash:{TABLES}/virtual", f"hash:{TABLES}/virtual_domains")
    write(TABLES / "passwd.db", b"\x00\x01secret", 0o460)
    write(TABLES / "a directory" / "with a name\n", "of two lines\n")
    write(TABLES / "master.cf.disabled", "127.0.0.1:10026 inet n - - - - smtpd -o x=y\n")
    os.symlink("no such file", TABLES / "dangling")


def elsewhere():
    """Files on another file system, in a directory that no private copy covers."""
    if not os.path.ismount("/srv"):
        subprocess.run(["mount", "-t", "tmpfs", "none", "/srv"], check=True)
    write("/srv/postfix/main.cf", MAIN.replace("= hash:/etc/aliases", "= btree:/srv/mail/aliases, /srv/mail/lists"))
    write("/srv/mail/aliases", "root: admin\n")
    remove(MAIN_CF)
    os.symlink("/srv/postfix/main.cf", MAIN_CF)
    write(MASTER_CF, SMTP + SERVICES + POSTLOG)


def linked_directory():
    """/etc/postfix itself is a link."""
    both(MAIN, SMTP + SERVICES + POSTLOG)
    shutil.copytree(POSTFIX, "/etc/postfix-real", symlinks=True)
    remove(POSTFIX)
    os.symlink("postfix-real", POSTFIX)


def short_host_name():
    """A host name without a dot, in no parameter either; its long form is in /etc/hosts."""
    both(MAIN.replace("myhostname = mail.example.net\n", ""), SMTP + SERVICES + POSTLOG)
    write("/etc/hosts", "127.0.0.1 localhost\n192.0.2.10 long.example.org other vm\n")
    run("hostname", "vm")


def no_main_cf():
    """No main.cf at all."""
    remove(MAIN_CF)


TEXTS = [crlf, no_final_newline, comments_inside, trailing_blanks, names_and_options, duplicates, short_host_name]
PLACES = [stock, links, mode_0640, used_by_the_panel, elsewhere, linked_directory, no_main_cf]
