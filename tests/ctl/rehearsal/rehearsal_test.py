"""The rehearsal on the machine's own Postfix, on good hosts and on bad ones."""

import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "run"))
import rehearsalworld as world
from newerwords import VERSIONS, postconf_words
from rehearsalworld import (LOOPBACK, OUTSIDE, PANEL, POSTFIX, RELAYING, SENDMAIL, TABLES, RehearsalTest, main,
                            postconf, program, rehearse, remove, run, set_aliases, table, tree)


class GoodHostTest(RehearsalTest):
    def test_every_message_arrives_and_relaying_is_refused(self):
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        for message in (SENDMAIL, LOOPBACK, OUTSIDE):
            self.assertRegex(rehearsed.about(message)[0]["text"],
                             r": delivered to root@\S+ by local \(delivered to mailbox\)\. "
                             r"Log: postfix/local\[\d+\]: \w+: to=<root@.*status=sent \(delivered to mailbox\)$")
        self.assertRegex(rehearsed.about(RELAYING)[0]["text"],
                         r": refused: [45]54 \S+ <somebody@elsewhere.example>: Relay access denied\. "
                         r"Log: postfix/smtpd\[\d+\]: NOQUEUE: reject: RCPT from outside\.example\[203\.0\.113\.25\]")
        self.assertEqual([f["advice"] for f in rehearsed.findings], [""] * 4)

    def test_host_name_is_asked_of_postfix_when_none_is_given(self):
        self.assertLevels(world.Rehearsed(run(world.REHEARSE, POSTFIX, "")), "ok ok ok ok")

    def test_restrictions_that_ask_name_servers_do_not_stand_in_the_way(self):
        postconf("smtpd_helo_required=yes",
                 "smtpd_helo_restrictions=reject_invalid_helo_hostname, reject_non_fqdn_helo_hostname, "
                 "reject_unknown_helo_hostname",
                 "smtpd_sender_restrictions=reject_non_fqdn_sender, reject_unknown_sender_domain",
                 "smtpd_client_restrictions=reject_unknown_client_hostname, reject_rbl_client list.example")
        self.assertLevels(rehearse(), "ok ok ok ok")

    def test_log_that_goes_to_a_file_is_read_all_the_same(self):
        postconf("maillog_file=/var/log/mail.log")
        before = tree("/etc/postfix")
        self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertEqual(tree("/etc/postfix"), before)
        self.assertFalse(Path("/var/log/mail.log").exists())

    def test_message_without_message_id_and_daemons_with_a_blank_in_their_names_are_followed(self):
        table("header_checks", "/^Message-ID:/ IGNORE\n")
        postconf("header_checks=regexp:/etc/postfix/header_checks", "syslog_name=my mail")
        self.assertLevels(rehearse(), "ok ok ok ok")

    def test_mail_for_another_host_has_done_its_part(self):
        set_aliases("postmaster: root", "root: admin@example.com")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertIn(": leaves this host for admin@example.com (not sent:", rehearsed.findings[0]["text"])

    def test_address_of_the_outside_is_none_that_postfix_trusts(self):
        run("ip", "link", "add", "host0", "type", "veth", "peer", "name", "host1")
        self.addCleanup(run, "ip", "link", "delete", "host0")
        run("ip", "address", "add", "203.0.113.5/24", "dev", "host0")
        run("ip", "link", "set", "host0", "up")
        postconf("mynetworks_style=subnet", "mynetworks=127.0.0.0/8 203.0.113.0/24")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok ok")
        self.assertIn("outside.example[198.51.100.25]", rehearsed.findings[3]["text"])

    def test_words_of_later_versions_in_the_middle_of_an_answer_disturb_nothing(self):
        """postconf fills its output in pieces, and warns between two of them."""
        real = Path("/usr/sbin/postconf.real")
        os.rename("/usr/sbin/postconf", real)
        self.addCleanup(os.rename, real, "/usr/sbin/postconf")
        for version in VERSIONS:
            words = postconf_words(version).replace("'", "'\\''")
            program("/usr/sbin/postconf", f"""#!/bin/sh
case " $* " in *" -x "* | *" mydestination "*) ;; *) printf '%s' '{words}' >&2; exec {real} "$@" ;; esac
answer=$({real} "$@") || exit
begin=${{answer%%= *}}
printf '%s' "$begin"
printf '%s' '{words}' >&2
printf '%s\\n' "${{answer#"$begin"}}"
""")
            with self.subTest(version):
                self.assertLevels(rehearse(), "ok ok ok ok")


class BadHostTest(RehearsalTest):
    def test_missing_programs_of_the_panel_are_named(self):
        for name in ("postfix-queue", "postfix-local", "postfix-mailman"):
            remove(PANEL / name)
        rehearsed = self.assertLevels(
            rehearse(), "warning warning warning ok",
            [f"The panel's {PANEL}/postfix-{name} is missing: " for name in ("mailman", "local", "queue")]
            if self.first_is_mailman() else
            [f"The panel's {PANEL}/postfix-{name} is missing: " for name in ("local", "mailman", "queue")])
        for finding in rehearsed.findings[:3]:
            self.assertEqual(finding["advice"],
                             "The panel's postfix-queue is missing: install the panel's mail programs.")
        self.assertRegex(rehearsed.findings[0]["text"], r"deferred at 127\.0\.0\.1\[127\.0\.0\.1\]:10027: ")

    @staticmethod
    def first_is_mailman():
        text = (POSTFIX / "master.cf").read_text()
        return text.index("\nmailman") < text.index("\ntorva_virtual")

    def test_missing_tables_of_the_panel_are_named(self):
        remove(TABLES / "no_relay.re")
        remove(TABLES / "non_auth.re")
        rehearsed = self.assertLevels(rehearse(), "ok warning warning warning")
        for finding in rehearsed.findings[1:3]:
            self.assertRegex(finding["text"], r": refused: 451 4\.3\.5 .* Log: .*/torva/non_auth\.re: No such file")
            self.assertEqual(finding["advice"],
                             "The panel writes this table; until then smtpd answers 451 to every client.")
        self.assertTrue(rehearsed.findings[3]["advice"].startswith(
            "The server failed, it did not decide: this proves nothing about relaying. "), rehearsed)

    def test_service_that_cannot_start_is_told_with_its_reason(self):
        postconf("smtpd_recipient_restrictions=permit", "smtpd_relay_restrictions=permit")
        rehearsed = self.assertLevels(rehearse(), "ok warning warning warning",
                                      ["The service program smtpd could not start. Log: postfix/smtpd["])
        for finding in rehearsed.findings[1:]:
            self.assertIn("fatal: in parameter smtpd_relay_restrictions or smtpd_recipient_restrictions",
                          finding["text"])

    def test_daemon_that_is_missing_is_told_with_its_service(self):
        local = Path(run("postconf", "-h", "daemon_directory").strip(), "local")
        local.rename("/usr/lib/postfix/kept-local")
        self.addCleanup(Path("/usr/lib/postfix/kept-local").rename, local)
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok",
                                      [f"{local} is missing: service local of master.cf cannot do without it."])
        self.assertIn(": accepted, but not delivered in time: local could not start.", rehearsed.findings[0]["text"])

    def test_address_in_no_domain_class_comes_with_the_command_that_helps(self):
        postconf("mydestination=$myhostname, localhost")
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok")
        advice = rehearsed.findings[0]["advice"]
        self.assertEqual({f["advice"] for f in rehearsed.findings[:3]}, {advice})
        run("sh", "-c", advice[advice.index("postconf -e "):])
        world.settle(POSTFIX / "main.cf")
        self.assertLevels(rehearse(), "ok ok ok ok")

    def test_open_relay_is_told(self):
        postconf("mynetworks=0.0.0.0/0")
        rehearsed = self.assertLevels(rehearse(), "ok ok ok warning")
        self.assertIn(": accepted: 250 ", rehearsed.findings[3]["text"])

    def test_open_relay_is_told_even_if_it_refuses_for_another_reason(self):
        (TABLES / "no_relay.re").write_text("/./ OK\n")
        relaying = "smtpd_relay_restrictions=permit"
        table("header_checks", "/^Subject: .*relaying/ REJECT no rehearsals\n")
        table("clients", "/^203/ 450 4.7.1 greylisted\n")
        for setting, text, advice in (
                ("header_checks=regexp:/etc/postfix/header_checks",
                 "the recipient was accepted; the message was refused at the end of its data: 550 5.7.1 no rehearsals. ",
                 "Any stranger may send mail to anybody through this host: "),
                ("smtpd_client_restrictions=check_client_access regexp:/etc/postfix/clients",
                 "refused: 450 4.7.1 <outside.example[203.0.113.25]>: Client host rejected: greylisted. ",
                 "A refusal for now proves nothing about relaying: "),
                ("smtpd_helo_restrictions=permit_mynetworks, reject",
                 "refused: 554 5.7.1 <[203.0.113.25]>: Helo command rejected: Access denied. ",
                 "It was not relaying that was refused, so this proves nothing about it: "),
                ("queue_minfree=999999999999", "refused: 452 4.3.1 Insufficient system storage. ",
                 "A refusal for now proves nothing about relaying: ")):
            with self.subTest(setting):
                postconf(relaying, setting)
                finding = rehearse().about(RELAYING)[0]
                self.assertEqual(finding["level"], "warning", finding)
                self.assertTrue(finding["text"].startswith(f"{RELAYING}: {text}"), finding)
                self.assertTrue(finding["advice"].startswith(advice), finding)
                run("postconf", "-X", setting.split("=")[0])

    def test_message_that_a_rule_holds_is_told(self):
        postconf("header_checks=static:HOLD")
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok")
        self.assertIn(": accepted, then held: hold: header ", rehearsed.findings[0]["text"])

    def test_each_message_that_a_rule_refuses_is_told_with_its_own_line(self):
        table("header_checks", "/^Subject: rehearsal/ REJECT no rehearsals\n")
        postconf("header_checks=regexp:/etc/postfix/header_checks")
        rehearsed = self.assertLevels(rehearse(), "warning warning warning ok")
        self.assertIn(": accepted, then bounced: no rehearsals. ", rehearsed.findings[0]["text"])
        for finding, message in zip(rehearsed.findings[1:3], (LOOPBACK, OUTSIDE)):
            self.assertIn(f": reject: header Subject: rehearsal: {message} from ", finding["text"])

    def test_message_that_is_discarded_before_its_message_id_is_told(self):
        table("header_checks", "/^From:/ DISCARD\n")
        postconf("header_checks=regexp:/etc/postfix/header_checks")
        for finding in self.assertLevels(rehearse(), "warning warning warning ok").findings[:3]:
            self.assertIn(": accepted, then discarded: discard: header From: ", finding["text"])

    def test_words_of_sendmail_are_whole_even_if_no_message_may_be_larger_than_a_byte(self):
        postconf("message_size_limit=1")
        self.assertIn(": not accepted: sendmail: fatal: root(0): message file too big. ",
                      rehearse().about(SENDMAIL)[0]["text"])

    def test_mail_that_nobody_can_read_is_told(self):
        set_aliases("postmaster: /dev/null")
        rehearsed = self.assertLevels(rehearse(), "ok ok warning ok")
        self.assertIn(": accepted, then thrown away: ", rehearsed.findings[2]["text"])
        set_aliases("root: root")  # without postmaster, local discards what is for it
        rehearsed = self.assertLevels(rehearse(), "ok ok warning ok")
        self.assertIn(" by local (discarded). ", rehearsed.findings[2]["text"])
        self.assertIn("give this address a recipient in the aliases", rehearsed.findings[2]["advice"])

    def test_service_that_is_switched_off_is_told_as_the_reason(self):
        postconf("master_service_disable=smtp/inet")
        for finding in self.assertLevels(rehearse(), "ok warning warning warning").findings[1:]:
            self.assertTrue(finding["advice"].endswith("The service smtp stands in master.cf, but is switched off: "
                                                       "postconf -h master_service_disable"), finding)

    def test_unknown_recipient_is_told(self):
        set_aliases("postmaster: nobody-of-this-name")
        rehearsed = self.assertLevels(rehearse(), "ok ok warning ok")
        self.assertIn('bounced at local: unknown user: "nobody-of-this-name".', rehearsed.findings[2]["text"])

    def test_program_beside_postfix_that_is_asked_is_told_so(self):
        postconf("smtpd_milters=inet:127.0.0.1:8891")
        rehearsed = rehearse()
        self.assertIn("connect to Milter service inet:127.0.0.1:8891: Connection refused",
                      rehearsed.about(OUTSIDE)[0]["text"])
        self.assertTrue(rehearsed.about(OUTSIDE)[0]["advice"].startswith("Only Postfix is started here."), rehearsed)

    def test_master_cf_that_postfix_refuses_is_told_in_its_words(self):
        with (POSTFIX / "master.cf").open("a") as file:
            file.write("one two three\n")
        rehearsed = rehearse()
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertRegex(rehearsed.findings[0]["text"],
                         r"^Postfix does not start, so no message was sent: .*fatal: .*master\.cf: line \d+: bad field")

    def test_main_cf_that_postfix_refuses_is_told_in_its_words(self):
        postconf("default_process_limit=many")
        rehearsed = rehearse()
        self.assertEqual(len(rehearsed.findings), 1, rehearsed)
        self.assertIn("fatal: bad numerical configuration: default_process_limit = many",
                      rehearsed.findings[0]["text"])


if __name__ == "__main__":
    main()
