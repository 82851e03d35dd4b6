"""What torva-postfixctl says of a master.cf is what torva-postfix-setup does with it.

The program itself is the oracle: it is run on each file, with stubs in place of
Postfix's tools, and either ends with "unable to parse" or does not.
"""

import os
import random
import subprocess

import ctlworld
from ctlworld import INSTALLED, MASTER_CF, TABLES, TOOL, CtlTest, program, remove, write

GRAMMAR = str(INSTALLED / "ctl/lib/master_cf.awk")
GOOD = "smtp inet n - y - - smtpd"

TAKEN = {
    "plain": GOOD + "\n",
    "no newline at the end": GOOD,
    "one newline": "\n",
    "blank lines alone": " \t\r\n\n  ",
    "comment alone": "# nothing",
    "indented comment": "   # nothing\n" + GOOD,
    "CR LF": GOOD + "\r\n# x\r\n\r\n",
    "columns on lines of their own": "smtp\n inet\n\tn\n\n# c\n - y -\n  -\n smtpd\n",
    "comment between columns": "smtp inet n # why not\n - y - - smtpd\n",
    "comment behind a word, and a continuation": GOOD + " # more follows\n  -o a=b\n",
    "comment without a blank before it": GOOD + "#x\n -o a=b\n",
    "comments inside": GOOD + "\n# one\n\n   # two\n  -o a=b\n# three\n",
    "columns without blanks between": "smtp inetn-y--smtpd\n",
    "wakeup with a mark": "a unix - - - 60? 1 b\n",
    "wakeup with a mark and no blank": "a unix - - - 60?1b c\n",
    "greatest number": "a unix - - - 4294967295 4294967295 b\n",
    "leading zeros": "a unix - - - 00000000000000000007? 007 b\n",
    "every word character": "a unix - - - - - !\"$%&'()*+,-./0:;<=>?@AZ[\\]^_`az{|}~\n",
    "every name character": "-a-z0-9_:. unix - - - - - b\n",
    "blanks at the end": GOOD + " \t \n",
    "trailing continuation of blanks": GOOD + "\n    \n",
    "trailing indented comment": GOOD + "\n    # c",
    "any bytes in a comment": b"# \x00\x01\xff\xe9\n" + GOOD.encode(),
    "dash and a number in one": "a unix - - - -1 - b\n",
    "mark behind maxproc, which is a word": "a unix - - - - 1? b\n",
    "fifo": "a fifo n - - 60 1 b\n",
}

REFUSED = {
    "upper-case name": "SMTP inet n - y - - smtpd\n",
    "upper-case letter in a name": "sMtp inet n - y - - smtpd\n",
    "address in brackets": "[::1]:25 inet n - y - - smtpd\n",
    "slash in a name": "a/b unix n - y - - smtpd\n",
    "unix-dgram": "postlog unix-dgram n - n - 1 postlogd\n",
    "pass": "smtpd pass - - n - - smtpd\n",
    "upper-case type": "smtp INET n - y - - smtpd\n",
    "no type": "smtp\n",
    "upper-case flag": "smtp inet N - y - - smtpd\n",
    "flag of two letters": "smtp inet no - y - - smtpd\n",
    "mark alone": "a unix - - - ? - b\n",
    "two marks": "a unix - - - 60?? - b\n",
    "wakeup too great": "a unix - - - 4294967296 - b\n",
    "maxproc far too great": "a unix - - - - 99999999999999999999 b\n",
    "hexadecimal": "a unix - - - 0x10 - b\n",
    "no command": "a unix - - - - -\n",
    "no command before the next entry": "a unix - - - - -\n" + GOOD + "\n",
    "a column short": "smtp inet n - y - smtpd\n",
    "comment behind the last word": GOOD + " # the last\n",
    "comment behind the last word, another entry": GOOD + " # the last\n\n" + GOOD + "\n",
    "comment for a command": "a unix - - - - - # b\n",
    "continuation of nothing": "  -o a=b\n" + GOOD + "\n",
    "continuation of a comment": "# c\n  -o a=b\n",
    "word outside ASCII": GOOD.encode() + " -o a=é\n".encode(),
    "control character": GOOD + " -o a=\x07b\n",
    "form feed": GOOD + "\f\n",
    "null byte": GOOD.encode() + b" a\x00b\n",
    "null byte on a line of its own": GOOD.encode() + b"\n\x00\n",
    "delete": GOOD + " \x7f\n",
    "byte order mark": b"\xef\xbb\xbf# comment\n" + GOOD.encode(),
    "vertical tab for a blank": "smtp\vinet n - y - - smtpd\n",
}

STUB = """#!/bin/sh
case "$*" in
"-h config_directory") echo /etc/postfix ;;
"-h myhostname") echo localhost.localdomain ;;
esac
"""


def as_bytes(text):
    return text if isinstance(text, bytes) else text.encode()


class GrammarTest(CtlTest):
    @classmethod
    def setUpClass(cls):
        for name in ("postconf", "postmap", "postalias"):
            program(f"/usr/sbin/{name}", STUB)

    def setUp(self):
        super().setUp()
        self.awks = [awk for awk in ("gawk", "mawk") if os.access(f"/usr/bin/{awk}", os.X_OK)]

    def refused(self, text):
        """Whether the program does not parse it."""
        remove(TABLES)
        write(MASTER_CF, text)
        outcome = subprocess.run([TOOL], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, env={"PATH": "/usr/bin:/bin"})
        if b"unable to parse /etc/postfix/master.cf" in outcome.stderr:
            return True
        self.assertEqual(outcome.returncode, 0, outcome.stderr)
        return False

    def said(self, text, awk):
        write("/run/linted", text)
        result = subprocess.run(["sh", "-c", "tr '\\000' '\\001' </run/linted | LC_ALL=C $0 -f " + GRAMMAR, awk],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return result.stdout.decode()

    def assertAgreed(self, text, wanted=None):
        refused = self.refused(text)
        if wanted is not None:
            self.assertEqual(refused, wanted, "the program itself")
        for awk in self.awks:
            self.assertRegex(self.said(text, awk), r"\Aline \d+: [^\n]+\n\Z" if refused else r"\A\Z", f"{awk}: {text!r}")

    def test_takes_what_the_program_parses(self):
        for name, text in TAKEN.items():
            with self.subTest(name):
                self.assertAgreed(as_bytes(text), False)

    def test_stops_at_what_the_program_does_not_parse(self):
        for name, text in REFUSED.items():
            with self.subTest(name):
                self.assertAgreed(as_bytes(text), True)

    def test_agrees_about_files_made_at_random(self):
        chance = random.Random(20)
        pieces = [GOOD, "a unix", " - ", "-", "n", "y", " ", "\t", "\r", "\n", "\n ", "\n#", "#", " # ", "60?", "7",
                  "4294967296", "inet", "unix", "fifo", "pass", "x=y", " -o ", "A", "[", "\x00", "\xe9", "smtpd", "\n\n"]
        counts = [0, 0]
        for _ in range(100):
            base = chance.choice([GOOD + "\n", "", "a unix - - - - - b\n -o c=d\n", "# c\n", "s fifo n n n 1? 2 b # e\n  f\n"])
            for _ in range(chance.randrange(1, 4)):
                place = chance.randrange(len(base) + 1)
                base = base[:place] + chance.choice(pieces) + base[place + chance.choice([0, 0, 1, 2]):]
            text = (base or "\n").encode("latin-1")
            self.assertAgreed(text)
            counts[self.said(text, self.awks[0]) != ""] += 1
        self.assertGreater(min(counts), 20, "one kind of file is hardly there")

    def test_names_line_and_reason(self):
        for text, wanted in [
                ("# 1\n\nsmtp inet n -\n\n   Y - - smtpd\n", 'line 5: chroot must be y, n or -, not "Y"\n'),
                ("# 1\nSMTP inet\n", 'line 2: "SMTP" in a service name, which holds a-z, 0-9 and -_:. only\n'),
                (GOOD + " # the last\n", "line 1: a comment behind the last word of an entry\n"),
                (GOOD + "\n  -o a=b # the last\n", "line 2: a comment behind the last word of an entry\n"),
                ("a unix - - - 4294967296 - b\n", "line 1: wakeup 4294967296 is too great\n"),
                ("a unix - - - - -\n", "line 1: a command must follow maxproc, not the end of the entry\n"),
                ("\n -o a=b\n", 'line 2: "-o" continues no entry\n'),
                (GOOD + " \xe9\n", 'line 1: "??" holds a character that is not printable ASCII\n')]:
            for awk in self.awks:
                self.assertEqual(self.said(text.encode(), awk), wanted)

    def test_takes_time_in_proportion_to_the_file(self):
        write("/run/linted", (GOOD + "\n# comment\n") * 100000)
        for awk in self.awks:
            subprocess.run(["sh", "-c", "LC_ALL=C $0 -f " + GRAMMAR + " /run/linted", awk], check=True, timeout=60)


if __name__ == "__main__":
    ctlworld.main()
