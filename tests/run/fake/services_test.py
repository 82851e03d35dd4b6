"""The services in master.cf and in the store of disabled ones."""

import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import golden, transcript
from runworld import CONFIGURATION_ERROR, DISABLED, MASTER_CF, TORVA, RunTest, fatal, main, remove

VIRTUAL = ("torva_virtual unix - n n - - pipe flags=DORhu user=popuser:popuser "
           "argv=/usr/lib/torva-9.0/postfix-local -f ${sender} -d ${recipient} -p /var/qmail/mailnames")
MAILMAN = ("mailman unix - n n - - pipe flags=R user=mailman:mailman "
           "argv=/usr/lib/torva-9.0/postfix-mailman ${nexthop} ${user} ${recipient}")
SMTP = "smtp inet n - - - - smtpd -o smtpd_proxy_filter=127.0.0.1:10025"
BEFORE_QUEUE = ("127.0.0.1:10025 inet n n n - - spawn user=mhandlers-user "
                "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10027 before-queue")
CLEAN = ("127.0.0.1:10026 inet n - - - - smtpd  -o smtpd_client_restrictions=  -o smtpd_helo_restrictions="
         "  -o smtpd_sender_restrictions=  -o smtpd_recipient_restrictions=permit_mynetworks,reject"
         "  -o smtpd_data_restrictions=  -o receive_override_options=no_unknown_recipient_checks")
BEFORE_REMOTE = ("127.0.0.1:10027 inet n n n - - spawn user=mhandlers-user "
                 "argv=/usr/lib/torva-9.0/postfix-queue 127.0.0.1 10026 before-remote")
PICKUP = "pickup fifo n - - 60 1 pickup -o content_filter=smtp:127.0.0.1:10027"
SASLAUTHD = "torva_saslauthd unix y y y - 1 torva_saslauthd status=5 listen=6 dbpath=/torva/passwd.db"
TLSMGR = "tlsmgr unix - - n 1000? 1 tlsmgr"
ALL = [VIRTUAL, MAILMAN, SMTP, BEFORE_QUEUE, CLEAN, BEFORE_REMOTE, PICKUP, SASLAUTHD, TLSMGR]
HEADER = "Configuring Postfix services/modules for Torva:\n"


def lines(*texts):
    return "".join(text + "\n" for text in texts)


class MasterTest(RunTest):
    def setUp(self):
        super().setUp()
        self.world.params(myhostname="localhost.localdomain")

    def master(self, text, disabled=None):
        """master.cf after a run that found this text there."""
        MASTER_CF.write_bytes(text.encode())
        remove(TORVA)
        if disabled is not None:
            TORVA.mkdir(parents=True)
            DISABLED.write_bytes(disabled.encode())
        self.assertCompleted(self.world.run())
        return MASTER_CF.read_bytes().decode()


class ServicesTest(MasterTest):
    def test_every_line_that_is_not_the_panels_stays_byte_for_byte(self):
        self.assertEqual(self.master(golden("master.cf.before").decode()), golden("master.cf.after").decode())

    def test_services_that_are_missing_come_at_the_end_in_the_order_of_the_run(self):
        self.assertEqual(self.master("# empty\n"), lines("# empty", "", *ALL))

    def test_a_last_line_without_a_line_end_gains_one_and_no_empty_line(self):
        self.assertEqual(self.master("# empty"), lines("# empty", *ALL))

    def test_one_line_end_alone_is_a_file_of_two_empty_lines(self):
        self.assertEqual(self.master("\n"), lines("", "", *ALL))

    def test_replaced_services_keep_their_place_and_lose_their_options(self):
        text = lines("pickup fifo n - n 30 1 pickup", "  -o x=y", "# between", "smtp inet n - y - - smtpd -v",
                     "smtp unix - - y - - smtp", "mailman unix - n n - - pipe argv=/x", "torva_virtual unix - - - - - x")
        self.assertEqual(self.master(text), lines(PICKUP, "# between", SMTP, "smtp unix - - y - - smtp", MAILMAN, VIRTUAL,
                                                  "", BEFORE_QUEUE, CLEAN, BEFORE_REMOTE, SASLAUTHD, TLSMGR))

    def test_services_that_are_installed_if_missing_keep_an_administrators_line(self):
        own = ["127.0.0.1:10026 inet n - n - 7 smtpd -o mynetworks=127.0.0.0/8", "127.0.0.1:10025 inet n - - - - x",
               "127.0.0.1:10027\tinet\tn - - - - y", "torva_saslauthd unix n n n - - z",
               "tlsmgr    unix  -       -       y       1000?   1       tlsmgr"]
        self.assertEqual(self.master(lines(*own)), lines(*own, "", VIRTUAL, MAILMAN, SMTP, PICKUP))

    def test_the_type_is_part_of_the_name(self):
        text = lines("smtp unix - - - - - smtp", "pickup unix n - - 60 1 pickup", "mailman inet n - - - - m",
                     "tlsmgr fifo - - - - - t", "torva_virtual inet n - - - - v")
        self.assertEqual(self.master(text), text + lines("", *ALL))

    def test_two_lines_for_one_service_become_one_at_the_first_place(self):
        text = lines("tlsmgr unix - - y 1 1 first", "# between", "tlsmgr unix - - n 2 2 second")
        self.assertEqual(self.master(text),
                         lines("tlsmgr unix - - n 2 2 second", "# between", "", *[s for s in ALL if s != TLSMGR]))

    def test_a_complete_file_is_not_written(self):
        text = lines(*ALL)
        MASTER_CF.write_text(text)
        before = os.stat(MASTER_CF)
        self.assertEqual(self.master(text), text)
        self.assertEqual(os.stat(MASTER_CF).st_ino, before.st_ino)
        self.assertFalse(DISABLED.exists())

    def test_a_replaced_service_in_another_spelling_is_written_in_ours_with_the_empty_line(self):
        text = lines(*ALL).replace(SMTP, SMTP.replace(" ", "\t"))
        self.assertEqual(self.master(text), lines(*ALL, ""))

    def test_carriage_returns_are_kept(self):
        text = "# a\r\nqmgr unix n - n 300 1 qmgr\r\n"
        self.assertEqual(self.master(text), text + lines("", *ALL))

    def test_the_file_gets_mode_0644_whatever_it_had(self):
        MASTER_CF.chmod(0o600)
        self.assertCompleted(self.world.run())
        self.assertEqual(MASTER_CF.stat().st_mode & 0o7777, 0o644)

    def test_a_symbolic_link_is_replaced_by_the_file(self):
        target = MASTER_CF.with_name("elsewhere")
        MASTER_CF.rename(target)
        MASTER_CF.symlink_to(target)
        run = self.world.run()
        self.assertEqual(run.status, 0, run.err)
        self.assertFalse(MASTER_CF.is_symlink())
        self.assertEqual(target.read_bytes(), golden("master.cf.before"))
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))

    def test_a_file_of_a_hundred_thousand_services_keeps_them_all(self):
        text = "".join(f"s{i} unix - - n - - x{i}\n  -o a=b{i}\n" for i in range(100_000))
        self.assertEqual(self.master(text), text + lines("", *ALL))


class DisabledServicesTest(MasterTest):
    def test_a_disabled_service_that_the_run_wants_comes_back_with_its_old_text(self):
        old = "tlsmgr  unix - - y 77? 3 tlsmgr\n  -o old=text"
        after = self.master("# m\n", disabled=f"# d\n{old}\nother unix - - - - - x\n")
        self.assertEqual(after, lines("# m", "", VIRTUAL, MAILMAN, SMTP, BEFORE_QUEUE, CLEAN, BEFORE_REMOTE, PICKUP,
                                      SASLAUTHD, old))
        self.assertEqual(DISABLED.read_text(), "# d\nother unix - - - - - x\n\n")

    def test_a_disabled_service_that_the_run_replaces_leaves_the_store(self):
        after = self.master("# m\n", disabled="mailman unix - - - - - old\nsmtp inet n - - - - old")
        self.assertEqual(after, lines("# m", "", *ALL))
        self.assertEqual(DISABLED.read_text(), "")

    def test_an_active_service_wins_and_its_disabled_twin_stays(self):
        disabled = "tlsmgr unix - - - - - disabled\n"
        active = "tlsmgr unix - - - - - active"
        after = self.master(active + "\n", disabled=disabled)
        self.assertEqual(after, lines(active, "", *[s for s in ALL if s != TLSMGR]))
        self.assertEqual(DISABLED.read_text(), disabled)

    def test_a_store_that_nothing_was_taken_from_is_not_written(self):
        for text in ("# nothing here\n", "other unix - - - - - x", "\n"):
            with self.subTest(text):
                TORVA.mkdir(parents=True, exist_ok=True)
                DISABLED.write_text(text)
                before = os.stat(DISABLED)
                self.assertCompleted(self.world.run())
                self.assertEqual(DISABLED.read_text(), text)
                self.assertEqual(os.stat(DISABLED).st_ino, before.st_ino)

    def test_no_store_is_made_when_there_is_none(self):
        self.assertCompleted(self.world.run())
        self.assertFalse(DISABLED.exists())

    def test_a_store_written_empty_is_refused_by_the_next_run(self):
        self.master("# m\n", disabled="tlsmgr unix - - y 77? 3 tlsmgr")
        self.assertEqual(DISABLED.read_bytes(), b"")
        self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, f"unable to open {DISABLED}"))

    def test_a_store_that_cannot_be_parsed_ends_the_run_and_stays(self):
        TORVA.mkdir(parents=True)
        DISABLED.write_text("no service\n")
        self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, f"unable to parse {DISABLED}"))
        self.assertEqual(DISABLED.read_text(), "no service\n")
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))


class UnusableMasterCfTest(RunTest):
    def check(self, word):
        run = self.world.run()
        text = transcript()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, f"unable to {word} {MASTER_CF}"),
                         said=text[: text.index(HEADER) + len(HEADER)])
        # Found out before anything of this phase was written.
        self.assertEqual(run.set("virtual_transport"), [])

    def test_a_file_that_cannot_be_parsed_is_left_as_it_is(self):
        rows = [
            ("a type of later times", "postlog unix-dgram n - n - 1 postlogd\n"),
            ("upper case", "SMTP inet n - - - - smtpd\n"), ("another type", "a pass n - - - - b\n"),
            ("too few columns", "smtp inet n -\n"), ("no command", "smtp inet n - - - -\n"),
            ("a number that does not fit", "smtp inet n - - 4294967296 - smtpd\n"),
            ("a comment after the last word", "smtp inet n - - - - smtpd # x\n"),
            ("a hash sign in a word", "smtp inet n - - - - smtpd -o a=b#c\n"),
            ("a byte above 0x7e", "smtp inet n - - - - sm\x7fpd\n"),
            ("letters beyond ASCII", "smtp inet n - - - - smtpd -o a=\u00e9\n"), ("a null byte", "a\0b\n"),
        ]
        for what, bad in rows:
            for text in (bad, "# fine\nqmgr unix n - n 300 1 qmgr\n" + bad + "# fine\n"):
                with self.subTest(what):
                    self.world.reset()
                    MASTER_CF.write_bytes(text.encode())
                    before = os.stat(MASTER_CF)
                    self.check("parse")
                    self.assertEqual(MASTER_CF.read_bytes(), text.encode())
                    self.assertEqual(os.stat(MASTER_CF).st_ino, before.st_ino)

    def test_a_continuation_before_any_service_cannot_be_parsed(self):
        MASTER_CF.write_text("# fine\n  -o a=b\nqmgr unix n - n 300 1 qmgr\n")
        self.check("parse")

    def test_the_largest_number_that_fits_is_accepted(self):
        MASTER_CF.write_text("a unix - - - 4294967295? 4294967295 b\n")
        self.assertCompleted(self.world.run())
        self.assertTrue(MASTER_CF.read_text().startswith("a unix - - - 4294967295? 4294967295 b\n"))

    def test_an_empty_file_cannot_be_opened(self):
        MASTER_CF.write_text("")
        self.check("open")
        self.assertEqual(MASTER_CF.read_bytes(), b"")

    def test_a_missing_file_cannot_be_opened(self):
        MASTER_CF.unlink()
        self.check("open")
        self.assertFalse(MASTER_CF.exists())

    def test_a_fifo_cannot_be_opened_and_is_not_waited_for(self):
        MASTER_CF.unlink()
        os.mkfifo(MASTER_CF)
        self.check("open")

    def test_a_fifo_in_place_of_the_store_is_not_waited_for(self):
        TORVA.mkdir(parents=True)
        os.mkfifo(DISABLED)
        self.assertFatal(self.world.run(), fatal(CONFIGURATION_ERROR, f"unable to open {DISABLED}"))

    def test_a_directory_a_device_and_a_dangling_link_cannot_be_opened(self):
        for make in (lambda: MASTER_CF.mkdir(), lambda: MASTER_CF.symlink_to("/dev/zero"),
                     lambda: MASTER_CF.symlink_to("/nowhere")):
            self.world.reset()
            MASTER_CF.unlink()
            make()
            self.check("open")


if __name__ == "__main__":
    main()
