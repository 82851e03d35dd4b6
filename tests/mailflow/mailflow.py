"""Mail through a Postfix that was started after the tool's run.

"localhost.localdomain" is a domain of the panel here, with mail names in its
database, and the host's own name is an alias of it. Postfix itself delivers to the
domains in mydestination, whatever the panel's tables say, so the name must not be
among them: Debian puts it there only if the host name has no domain. So mydestination
is what Debian writes for a host with a domain; see fresh_server.py for the other.
"""

import re
import ssl
import stat
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from mailclient import Message, inside, outside
from mailworld import (CERTIFICATE, HOST, MASTER_CF, OUTSIDE_ADDRESS, RECORDS, SPOOL, STOCK_MASTER_CF, MailTest, World,
                       main, run, wait_for)

PANEL_DOMAIN = "localhost.localdomain"
INFO = "info@" + PANEL_DOMAIN
ANNA = "anna@" + PANEL_DOMAIN
LIST = "list@" + PANEL_DOMAIN
DATABASE = """
    INSERT INTO domains VALUES (1, 'localhost.localdomain'), (2, 'example.org');
    INSERT INTO mail VALUES (1, 1, 'info'), (2, 1, 'anna'), (3, 2, 'elsewhere');
    INSERT INTO mail_aliases VALUES (1, 1, 'sales'), (2, 1, 'contact'), (3, 3, 'stranger');
"""


class MailFlowTest(MailTest):
    @classmethod
    def set_up(cls):
        cls.world = World(
            mydestination=f"$myhostname, {HOST}, localhost.example.net, , localhost",
            # Debian's value refuses relaying before the tool's own list is asked.
            smtpd_relay_restrictions="",
        )
        cls.world.start_database(DATABASE)
        cls.world.run_tool()
        cls.fill_tables()
        cls.world.write_restriction_lists()
        cls.world.write_certificate()
        cls.world.start_postfix()

    @classmethod
    def fill_tables(cls):
        """The panel's records; "virtual" also has those of the run."""
        cls.world.put("virtual_domains", **{PANEL_DOMAIN: "1"})
        cls.world.put("vmailbox", **{address: "x" for address in (INFO, ANNA, LIST)})
        cls.world.put("transport", **{LIST: "mailman:post"})
        cls.world.put("blacklists", **{"spammer@client.example.com": "REJECT", "spam.example.com": "REJECT"})

    def test_message_by_smtp_passes_both_handlers_into_the_maildir_of_the_mail_name(self):
        for recipient in ("sales", "contact", "info"):
            with self.subTest(recipient):
                self.forget_relayed()
                message = Message()
                inside.send(message, f"{recipient}@{HOST}")
                added = self.assertDelivered(message, INFO)
                self.assertPassedBothHandlers(message)
                self.assertEqual(dict(added)["X-Original-To"], f"{recipient}@{HOST}")
                [_, clean], [_, first] = added[-2:]
                # Port 25 took it, queued nothing, and told 10026 about its client.
                self.assertRegex(first, rf"^from client\.example\.com \(localhost \[127\.0\.0\.1\]\)\s+"
                                        rf"by {HOST} \(Postfix\) with ESMTP\s+for <{recipient}@{HOST}>;")
                self.assertRegex(clean, rf"^from {HOST} \(localhost \[127\.0\.0\.1\]\)\s+"
                                        rf"by {HOST} \(Postfix\) with ESMTP id \w+\s+for <{recipient}@{HOST}>;")
                queue_id = clean.split(" id ")[1].split()[0]
                self.world.log_line(rf"proxy-accept: END-OF-MESSAGE: 250 2\.0\.0 Ok: queued as {queue_id};")
                self.world.log_line(rf"/smtpd\[\d+\]: {queue_id}: client=localhost\[127\.0\.0\.1\], "
                                    r"orig_client=localhost\[127\.0\.0\.1\]")
                self.world.log_line(rf"/pipe\[\d+\]: {queue_id}: to=<{INFO}>, .*relay=torva_virtual, .*status=sent")

    def test_message_from_sendmail_takes_the_content_filter_way(self):
        message = Message()
        run("sendmail", "-i", "-f", message.sender, f"sales@{HOST}", input=message.text, text=False, user="nobody")
        added = self.assertDelivered(message, INFO)
        [_, clean], [_, first] = added[-2:]
        self.assertRegex(first, rf"^by {HOST} \(Postfix, from userid \d+\)\s+id \w+;")
        # The handler carries TLS between smtp(8) and 10026: who sent what is told by
        # the queue identifiers.
        self.assertEqual(self.relayed("before-queue"), [])
        relay = self.assertOne(self.relayed("before-remote"))
        self.assertEqual((relay.address, relay.port), ("127.0.0.1", "10026"))
        picked_up, queue_id = (line.split("id ")[-1].split()[0].rstrip(";") for line in (first, clean))
        self.world.log_line(rf"/smtp\[\d+\]: {picked_up}: to=<{INFO}>, .*relay=127\.0\.0\.1\[127\.0\.0\.1\]:10027, "
                            rf".*status=sent \(250 2\.0\.0 Ok: queued as {queue_id}\)")

    def test_message_to_two_mail_names_is_delivered_to_each_by_itself(self):
        message = Message()
        inside.send(message, f"info@{HOST}", f"anna@{HOST}")
        deliveries = self.world.deliveries(message, 2)
        self.assertEqual(sorted(dict(delivery.added_to(message))["Delivered-To"] for delivery in deliveries),
                         [ANNA, INFO])
        self.assertEqual(sorted(delivery.maildir.parent.name for delivery in deliveries), ["anna", "info"])

    def test_outside_client_is_refused_relaying(self):
        for recipient in ("someone@example.org", "elsewhere@example.org", f"x%example.org@{HOST}"):
            with self.subTest(recipient):
                self.assertEqual(outside.answer("sender@client.example.com", recipient),
                                 f"554 5.7.1 <{recipient}>: Relay access denied")
        # The handlers never hear of it.
        self.assertEqual(self.relayed("before-queue"), [])

    def test_client_in_mynetworks_may_relay(self):
        self.assertEqual(inside.answer("sender@client.example.com", "someone@example.org"), "250 2.1.5 Ok")

    def test_outside_client_reaches_a_recipient_of_the_panel(self):
        for recipient in (f"sales@{HOST}", INFO):
            with self.subTest(recipient):
                self.forget_relayed()
                message = Message()
                outside.send(message, recipient)
                added = self.assertDelivered(message, INFO)
                self.assertPassedBothHandlers(message)
                self.assertIn(f"[{OUTSIDE_ADDRESS}]", added[-1][1])
                # Past two handlers on this host the log still knows the client.
                queue_id = added[-2][1].split(" id ")[1].split()[0]
                self.world.log_line(rf"{queue_id}: client=localhost\[127\.0\.0\.1\], "
                                    rf"orig_client=unknown\[{OUTSIDE_ADDRESS}\]")

    def test_unknown_recipient_is_refused(self):
        for recipient, table in ((f"nobody-here@{HOST}", "local recipient table"),
                                 (f"stranger@{HOST}", "local recipient table"),
                                 (f"sales@{PANEL_DOMAIN}", "virtual mailbox table")):
            with self.subTest(recipient):
                self.assertEqual(
                    outside.answer("sender@client.example.com", recipient),
                    f"550 5.1.1 <{recipient}>: Recipient address rejected: User unknown in {table}")

    def test_blacklisted_sender_is_refused_wherever_it_comes_from(self):
        for client in (inside, outside):
            for sender in ("spammer@client.example.com", "anybody@spam.example.com"):
                with self.subTest(sender, inside=client is inside):
                    self.assertEqual(client.answer(sender, f"sales@{HOST}"),
                                     f"554 5.7.1 <{sender}>: Sender address rejected: Access denied")

    def test_outside_client_gets_tls_with_the_certificate_of_the_panel(self):
        trust = ssl.create_default_context(cadata=CERTIFICATE.read_text())
        message = Message()
        outside.send(message, f"sales@{HOST}", tls=trust)
        added = self.assertDelivered(message, INFO)
        self.assertRegex(added[-1][1], r" with ESMTPS\s")

    def test_outside_client_is_offered_authentication(self):
        features = outside.session(lambda smtp: (smtp.ehlo(), smtp.esmtp_features)[1])
        self.assertIn("auth", features)

    def test_mailing_list_is_handed_over_to_mailman(self):
        message = Message()
        outside.send(message, LIST)
        [path] = wait_for("a message for Mailman", lambda: list((RECORDS / "mailman").iterdir()))
        self.world.wait_until_idle()
        arguments, text = path.read_bytes().split(b"\n\n", 1)
        self.assertEqual(arguments.decode().split("\n"), ["post", "list", LIST])
        self.assertTrue(text.endswith(message.text), text)
        self.assertEqual(path.owner(), "mailman")

    def test_both_pickup_services_live_side_by_side(self):
        services = run("postconf", "-M", "pickup").splitlines()
        # Debian's chroot column differs between its releases.
        [own] = re.findall(r"(?m)^pickup .*", STOCK_MASTER_CF.read_text())
        self.assertEqual([" ".join(line.split()) for line in services],
                         [" ".join(own.split()),
                          "pickup fifo n - - 60 1 pickup -o content_filter=smtp:127.0.0.1:10027"])
        # They share a path; whoever drops a message there wakes the one with the filter.
        self.assertTrue(stat.S_ISFIFO((SPOOL / "public/pickup").stat().st_mode))

    def test_running_server_notices_the_tables_of_a_run_without_a_reload(self):
        def restore():
            self.fill_tables()
            # Postfix cannot tell two changes within one second apart.
            self.world.reload_postfix()

        self.addCleanup(restore)
        # Each table has a new index file then, and smtpd(8) has the old one open.
        spam = ("spammer@client.example.com", f"sales@{HOST}")
        self.assertIn("Access denied", inside.answer(*spam))
        self.world.run_tool()
        self.assertEqual(inside.answer(*spam), "250 2.1.5 Ok")

    def test_second_run_on_the_running_server_leaves_mail_flowing(self):
        before = MASTER_CF.read_bytes()
        self.world.run_tool()
        self.assertEqual(MASTER_CF.read_bytes(), before)
        # The run has emptied the panel's tables, and the panel fills them again.
        self.fill_tables()
        self.world.reload_postfix()
        for send in (lambda message: inside.send(message, f"contact@{HOST}"),
                     lambda message: outside.send(message, f"contact@{HOST}"),
                     lambda message: run("sendmail", "-i", "-f", message.sender, f"contact@{HOST}",
                                         input=message.text, text=False)):
            message = Message()
            send(message)
            self.assertDelivered(message, INFO)
        self.assertEqual(len(self.relayed("before-queue")), 2)
        self.assertEqual(len(self.relayed("before-remote")), 3)


if __name__ == "__main__":
    main()
