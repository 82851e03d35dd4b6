"""What later versions of Postfix say besides their answers, as Debian's 3.10.13 and 3.11.7 say it.

Each postconf that reads a main.cf with these parameters warns: in a run, all but "postconf -e". In 3.11 each postmap and
postalias of a hash table warns, too."""

DROPPED = {
    name: f'support for parameter "{name}" will be removed; instead, specify "{name.replace("use_tls", "tls_security_level")}"'
    for name in ("smtpd_use_tls", "smtp_use_tls")
}
DEPRECATED_TABLES = "hash/btree support is deprecated.  Please switch to cdb or lmdb."
VERSIONS = ("3.10", "3.11")


def postconf_words(version, main_cf="/etc/postfix/main.cf"):
    words = "".join(f"postconf: warning: {main_cf}: {text}\n" for text in DROPPED.values())
    if version == "3.11":
        words += "postconf: warning: See https://www.postfix.org/DEPRECATION_README.html for details\n"
    return words


def table_words(version, tool, path):
    if version != "3.11":
        return ""
    return (f"{tool}: warning: {path}: {DEPRECATED_TABLES}\n"
            f"{tool}: warning: See /usr/share/doc/postfix/NON_BERKELEYDB_README.gz for more info.\n")


def redirect_words(tool, path, target):
    """Of a Postfix with non_bdb_migration_level = enable-redirect."""
    return f"{tool}: redirecting hash:{path} to {target}:{path}\n"


def unsupported_words(tool):
    """Of a Postfix without Berkeley DB."""
    return (f"{tool}: warning: unsupported dictionary type: hash. Is the postfix-hash package installed?\n"
            f"{tool}: fatal: unsupported map type: hash\n")


def not_changed_words(path, target="cdb"):
    """Of a redirect to a type whose files can only be written whole."""
    return redirect_words("postmap", path, target) + "postmap: fatal: unsupported non-bulk change request\n"
