"""preview, apply and rollback on configurations with the oddities of real ones."""

import os
from pathlib import Path

import ctlworld
import pairs
from ctlworld import MAIN_CF, MASTER_CF, TABLES, CtlTest, ctl, postconf, remove, tree

FILES = [MAIN_CF, MASTER_CF, Path("/etc/aliases")]


def foreign_lines():
    """The entries that the tool does not know, as Postfix reads them."""
    lines = postconf("-M").splitlines()
    return [line for line in lines if line.split()[1:2] in (["unix-dgram"], ["pass"])]


def order():
    """The entries that the run does not replace or add, in their order."""
    run_s_own = ("smtp/inet", "mailman/unix", "pickup/fifo", "pickup/unix", "torva_virtual/unix", "torva_saslauthd/unix")
    keys = ["/".join(line.split()[:2]) for line in postconf("-M").splitlines()]
    return [key for key in keys if key not in run_s_own and not key.startswith("127.0.0.1:1002")]


class TextTest(CtlTest):
    """Oddities in the text of the files."""


class PlaceTest(CtlTest):
    """Oddities in where the files are, and in what is beside them."""


def promise(lay_out):
    def test(self):
        kept = Path("/run/preview")
        remove(kept)
        self.addCleanup(remove, "/etc/postfix-site")
        self.addCleanup(remove, "/etc/mail")
        self.addCleanup(remove, "/etc/mail-aliases")
        self.addCleanup(remove, "/srv/postfix")
        self.addCleanup(remove, "/srv/mail")
        lay_out()
        before = tree()
        links = {path: os.readlink(path) for path in FILES if path.is_symlink()}
        modes = {path: (path.stat().st_mode, path.stat().st_uid, path.stat().st_gid) for path in FILES[:2] if path.exists()}
        entries = (foreign_lines(), order()) if MAIN_CF.exists() else None
        settings = postconf("-n", "recipient_delimiter", "smtpd_banner", "relayhost")

        self.assertStatus(0, ctl("check"))
        self.assertSame(before, "after check")
        self.assertStatus(0, ctl("preview", "--keep", str(kept)))
        self.assertSame(before, "after preview")

        self.assertNotIn("somebody else", self.assertStatus(0, ctl("apply")).out)
        self.assertNotEqual(ctlworld.difference(before, tree()), {})
        self.assertEqual(links, {path: os.readlink(path) for path in FILES if path.is_symlink()})
        self.assertEqual(modes, {path: (path.stat().st_mode, path.stat().st_uid, path.stat().st_gid) for path in modes})
        if entries:
            self.assertEqual(entries, (foreign_lines(), order()))
        self.assertIn("torva_virtual", postconf("-h", "virtual_transport"))
        if settings:
            self.assertEqual(settings, postconf("-n", "recipient_delimiter", "smtpd_banner", "relayhost"))
        for path in [MAIN_CF.resolve(), MASTER_CF.resolve(), *TABLES.glob("*")]:
            if path.is_file() and path.suffix != ".db":
                self.assertEqual(path.read_bytes(), Path(f"{kept}{path}").read_bytes(), f"previewed {path}")
                self.assertEqual(path.stat().st_mode, Path(f"{kept}{path}").stat().st_mode, f"previewed {path}")

        self.assertRegex(ctl("backups").out, r"\A\d{8}T\d{6}Z .* before apply\n +whole, .*\n\Z")
        self.assertStatus(0, ctl("rollback"))
        self.assertSame(before, "after rollback")

    test.__doc__ = lay_out.__doc__
    return test


for suite, laid_out in ((TextTest, pairs.TEXTS), (PlaceTest, pairs.PLACES)):
    for lay_out in laid_out:
        setattr(suite, f"test_{lay_out.__name__}", promise(lay_out))

if __name__ == "__main__":
    ctlworld.main()
