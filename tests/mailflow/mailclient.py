"""The clients of the mail-flow tests, and what they send. The server is mailworld.py."""

import concurrent.futures
import ctypes
import itertools
import smtplib
import time

ADDRESS = "192.0.2.10"
# The longest that anything here takes is a few seconds; this is for a busy machine.
PATIENCE = 60


def enter_outside():
    """Moves this thread into the network of the foreign clients, see setns(2)."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/run/netns/outside") as namespace:
        if libc.setns(namespace.fileno(), 0x40000000) != 0:  # CLONE_NEWNET
            raise OSError(ctypes.get_errno(), "setns")


class Message:
    """A message that is identified by its token, and easily damaged."""

    _number = itertools.count(1)

    def __init__(self, sender="sender@client.example.com"):
        self.sender = sender
        self.token = f"token-{next(self._number)}-{time.time_ns()}".encode()
        # Fully qualified addresses and all the headers that Postfix would add.
        self.text = (
            b"From: Sender <%s>\n"
            b"To: Somebody Else <somebody@client.example.com>\n"
            b"Date: Thu, 01 Jan 2015 00:00:00 +0000\n"
            b"Message-ID: <%s@client.example.com>\n"
            b"MIME-Version: 1.0\n"
            b"Content-Type: text/plain; charset=utf-8\n"
            b"Content-Transfer-Encoding: 8bit\n"
            b"Subject: folded\n"
            b"\there\n"
            b"\n"
            b".\n"
            b"..a line that begins with dots\n"
            b"From a line that looks like the head of a mailbox\n"
            b"eight bits: gr\xc3\xbc\xc3\x9fe, \xff\n"
            b"a tab\tand blanks at the end   \n"
            b"%s\n"
            b"\n"
            b"the last line, and one more that is empty\n"
            b"\n" % (sender.encode(), self.token, b"x" * 900)
        )


class Client:
    """Somebody who speaks SMTP with the server from one place of the network."""

    def __init__(self, address, initializer=None):
        self._address = address
        self._thread = concurrent.futures.ThreadPoolExecutor(1, initializer=initializer)

    def session(self, talk):
        """The result of talk(smtp) in a separate session."""

        def session():
            with smtplib.SMTP(self._address, 25, "client.example.com", timeout=PATIENCE) as smtp:
                return talk(smtp)

        return self._thread.submit(session).result()

    def send(self, message, *recipients, tls=None):
        """Sends; with tls, an ssl.SSLContext, over STARTTLS."""

        def talk(smtp):
            if tls is not None:
                smtp.starttls(context=tls)
            refused = smtp.sendmail(message.sender, recipients, message.text.replace(b"\n", b"\r\n"))
            if refused:
                raise smtplib.SMTPRecipientsRefused(refused)

        self.session(talk)

    def answer(self, sender, recipient):
        """What the server says to the recipient, as one line."""

        def talk(smtp):
            smtp.ehlo_or_helo_if_needed()
            smtp.mail(sender)
            code, text = smtp.rcpt(recipient)
            return f"{code} {text.decode()}"

        return self.session(talk)


# The server's own machine, which it trusts, and one that it does not know.
inside = Client("127.0.0.1")
outside = Client(ADDRESS, enter_outside)
