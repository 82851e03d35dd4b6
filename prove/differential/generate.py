"""Generates master.cf files: most of them well formed, many with one or two things that
an administrator, an editor or an accident may have left there."""

NAMES = [b"smtp", b"submission", b"pickup", b"qmgr", b"10025", b"127.0.0.1:10026", b"localhost:smtp", b"::1:25",
         b"relay", b"a", b"scalemail-backend", b"_x.y", b"yn", b"inet", b"unix", b"-", b"587"]
ODD_NAMES = [b"SMTP", b"Relay", b"[::1]:25", b"[127.0.0.1]:10025", b"private/x", b"a,b", b"$x", b"a=b", b"{a}", b"a+b",
             b"caf\xc3\xa9", b"A[b]"]
TYPES = [b"inet", b"unix", b"fifo"]
ODD_TYPES = [b"unix-dgram", b"pass", b"unix-dgram", b"pass", b"INET", b"tcp", b"unixy", b"-", b"n"]
FLAGS = [b"-", b"n", b"y"]
ODD_FLAGS = [b"yes", b"N", b"?", b"1", b"--", b"ny"]
WAKEUPS = [b"-", b"-", b"0", b"1", b"60", b"300?", b"1000?", b"0?"]
LIMITS = [b"-", b"-", b"0", b"1", b"2", b"100"]
ODD_NUMBERS = [b"-1", b"-?", b"?", b"60x", b"6 0", b"60??", b"007", b"00", b"000060?", b"2147483647", b"2147483648",
               b"4294967295", b"4294967296", b"99999999999999999999", b"99999999999?", b"+1", b"1.5", b"0x10", b"y"]
COMMANDS = [b"smtpd", b"smtp", b"pipe", b"spawn", b"cleanup", b"/usr/bin/x", b"qmgr"]
OPTIONS = [b"-v", b"-o a=b", b"-o smtpd_tls_security_level=encrypt", b"-o syslog_name=postfix/$service_name",
           b"-o mynetworks=127.0.0.0/8,[::1]/128", b"-D", b"-o x=", b"-o  y=1,2"]
WORDS = [b"user=nobody", b"argv=/usr/bin/x", b"${sender}", b"flags=R", b"a=b=c", b"'q'", b"\"d\"", b"\\", b"!;|&<>()*",
         b"${recipient}:$x", b"-f", b"--", b"-", b"}", b"@", b"`~^%"]
BRACES = [b"-o { a = b c }", b"-o {a=b}", b"-o{x=y z}", b"{ -x  y }", b"-o { smtpd_x = { q  r }, s }", b"{a b} {c d}",
          b"-o a={b c}", b"${a b}", b"{", b"-o {a", b"{}", b"x{y z}"]
JOINED_OPTIONS = [b"-oa=b", b"-vo a=b", b"-vv", b"-vvo x=y", b"-o", b"-ox", b"-vox=y -v", b"-o -o", b"-oo"]
COMMENTS = [b"#", b"# text", b"#smtp inet n - n - - smtpd", b"## {", b"#\t\r", b"# caf\xc3\xa9 \xff", b"#\x00x"]
BLANK_RUNS = [b" ", b" ", b"  ", b"\t", b"       ", b" \t ", b"\r ", b" \r"]
ODD_BYTES = [b"\x00", b"\x7f", b"\x80", b"\xc3\xa9", b"\v", b"\f", b"\x01", b"\x1b", b"\xff"]
DAMAGE = [b"#", b"\n", b" ", b"\n ", b"\t", b"\r", b"\r\n", b"?", b"-", b"n", b"{", b"}", b"a", b"9", b"\n#\n"] + ODD_BYTES


class Maker:
    """Makes one file at a time; the result depends on the random source alone."""

    def __init__(self, random):
        self.random = random

    def once_in(self, number):
        return self.random.randrange(number) == 0

    def pick(self, usual, odd=(), one_in=80):
        return self.random.choice(odd if odd and self.once_in(one_in) else usual)

    def notes(self):
        """Comments and empty lines, each after a line feed."""
        text = b""
        while self.once_in(2):
            text += b"\n" + self.pick([b"", b"", *BLANK_RUNS]) + self.pick([b"", *COMMENTS])
        return text

    def separator(self):
        if self.once_in(1000):
            return b""
        if not self.once_in(8):
            return self.pick(BLANK_RUNS)
        comment = self.pick(BLANK_RUNS) + self.pick(COMMENTS) if self.once_in(40) else b""
        return comment + self.notes() + b"\n" + self.pick(BLANK_RUNS)

    def words(self):
        yield self.pick(COMMANDS, [b"{smtpd -v}", b"smtpd\\", b"x" * 5000])
        for _ in range(self.random.choice([0, 0, 1, 2, 3, 12])):
            yield self.pick(OPTIONS, JOINED_OPTIONS + BRACES)
        for _ in range(self.random.choice([0, 0, 0, 1, 2])):
            yield self.pick(WORDS, BRACES + [b"w" * 20000], 40)

    def entry(self):
        fields = [self.pick(NAMES, ODD_NAMES, 50), self.pick(TYPES, ODD_TYPES, 50)]
        fields += [self.pick(FLAGS, ODD_FLAGS, 200) for _ in range(3)]
        fields += [self.pick(WAKEUPS, ODD_NUMBERS, 50), self.pick(LIMITS, ODD_NUMBERS, 50)]
        fields += self.words()
        if self.once_in(120):
            del fields[self.random.randrange(len(fields)) :]  # missing columns
        if self.once_in(120):
            del fields[self.random.randrange(len(fields)) % 8 : 8]
        text = b"".join(field + self.separator() for field in fields[:-1]) + b"".join(fields[-1:])
        if self.once_in(5):
            text += self.pick(BLANK_RUNS)
        if self.once_in(60):
            text += b" " + self.pick(COMMENTS)
        return text

    def file(self):
        lines = []
        for _ in range(self.random.choice([0] + [1, 1, 2, 3, 5, 8] * 3)):
            if self.once_in(4):
                lines.append(self.pick([b"", *BLANK_RUNS]) + self.pick([b"", *COMMENTS]))
            lines.append(self.random.choice(lines) if lines and self.once_in(25) else self.entry())
        if self.once_in(60):
            lines.insert(0, b"  " + self.pick([b"-o a=b", b"smtp inet n - n - - smtpd", b"# c"]))
        end = b"\r\n" if self.once_in(10) else b"\n"
        text = end.join(lines) + (b"" if self.once_in(5) else end)
        for _ in range(self.random.choice([0] * 10 + [1, 2])):
            text = self.damaged(text)
        return text

    def damaged(self, text):
        at = self.random.randrange(len(text) + 1)
        if self.once_in(2):
            return text[:at] + text[at + self.random.choice([1, 1, 2, 8]) :]
        return text[:at] + self.pick(DAMAGE) + text[at:]
