"""Mail through a Postfix that was running already, as Debian has installed it, before
the tool: the tool's run, the panel's first records, "postfix reload".

The host name has no domain at first, so that Debian has put "localhost.localdomain"
into mydestination. The panel has no domain of that name here: mail to the reserved
addresses, which the run forwards to it, is delivered locally.
"""

import stat
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from mailclient import Message, inside, outside
from mailworld import HOST, SPOOL, MailTest, World, main, run, wait_for

MAILBOX = "anna@example.org"
ROOT_MAIL = Path("/var/mail/root")
RESERVED = ("postmaster", "mailer-daemon", "root", "anonymous", "drweb")
DATABASE = """
    INSERT INTO domains VALUES (1, 'example.org');
    INSERT INTO mail VALUES (1, 1, 'anna');
"""


def sendmail(message, recipient):
    run("sendmail", "-i", "-f", message.sender, recipient, input=message.text, text=False)


class FreshServerTest(MailTest):
    # There is no certificate yet.
    expected_warnings = MailTest.expected_warnings + (
        "warning: error opening chain file: /etc/postfix/postfix_default.pem: No such file or directory",
    )

    @classmethod
    def set_up(cls):
        cls.world = World(
            myhostname="sandbox",
            mydestination="$myhostname, sandbox, localhost.localdomain, , localhost",
        )
        cls.world.start_postfix()
        cls.before = Message()
        sendmail(cls.before, "root")
        wait_for("local delivery", lambda: cls.in_root_mail(cls.before))
        cls.world.start_database(DATABASE)
        cls.world.run_tool()
        cls.world.put("virtual_domains", **{"example.org": "1"})
        cls.world.put("vmailbox", **{MAILBOX: "x"})
        cls.world.put("aliases", **{name: "root" for name in RESERVED[1:] if name != "root"})
        cls.world.write_restriction_lists()
        cls.world.reload_postfix()

    @staticmethod
    def in_root_mail(message):
        return ROOT_MAIL.exists() and message.token in ROOT_MAIL.read_bytes()

    def test_reserved_address_at_the_host_name_is_delivered_locally(self):
        for name in RESERVED:
            with self.subTest(name):
                message = Message()
                outside.send(message, f"{name}@{HOST}")
                match = self.world.log_line(
                    rf"(\w+): to=<(\S+)>, orig_to=<{name}@{HOST}>, relay=local, .*status=sent \(delivered to mailbox\)")
                self.assertTrue(self.in_root_mail(message), match[0])
                self.assertIn(match[2], (f"root@{HOST}", "root@localhost.localdomain"))

    def test_message_from_sendmail_takes_the_content_filter_way_from_now_on(self):
        self.assertTrue(stat.S_ISFIFO((SPOOL / "public/pickup").stat().st_mode))
        message = Message()
        sendmail(message, MAILBOX)
        self.assertDelivered(message, MAILBOX)
        self.assertEqual(self.relayed("before-queue"), [])
        relay = self.assertOne(self.relayed("before-remote"))
        self.assertEqual((relay.address, relay.port), ("127.0.0.1", "10026"))
        self.assertIn(message.token, relay.said)
        self.assertIn(b"\nXFORWARD SOURCE=LOCAL\r\n", relay.said)
        # The message before the run had no handler on its way.
        every = self.world.relayed(self.world.relayed_names())
        self.assertFalse([old for old in every if self.before.token in old.said])

    def test_outside_client_reaches_a_recipient_of_the_panel(self):
        message = Message()
        outside.send(message, MAILBOX)
        self.assertDelivered(message, MAILBOX)
        self.assertPassedBothHandlers(message)

    def test_outside_client_is_refused_relaying_by_the_restrictions_of_debian(self):
        self.assertEqual(outside.answer("sender@client.example.com", "someone@example.net"),
                         "454 4.7.1 <someone@example.net>: Relay access denied")

    def test_client_in_mynetworks_reaches_a_recipient_of_the_panel(self):
        message = Message()
        inside.send(message, MAILBOX)
        self.assertDelivered(message, MAILBOX)
        self.assertPassedBothHandlers(message)


if __name__ == "__main__":
    main()
