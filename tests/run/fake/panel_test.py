"""What a run takes from the panel: the mailbox owner, the configuration file, the database."""

import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import golden, transcript
from runworld import MASTER_CF, NO_DATABASE, RunTest, main

UID_STEP = " configuring Virtual delivery agent user ID"
PANEL_CONF = Path("/etc/kra/kra.conf")
PASSWORD = Path("/etc/kra/.kra.shadow")


class AccountTest(RunTest):
    def test_the_ids_of_the_mailbox_owner_are_written_in_plain_decimal(self):
        for uid, gid in ((0, 0), (7, 8), (31000, 31001), (4294967294, 4294967290)):
            with self.subTest(uid):
                self.world.reset()
                self.world.set_popuser(uid, gid)
                run = self.world.run()
                self.assertCompleted(run)
                self.assertEqual((run.set("virtual_uid_maps"), run.set("virtual_gid_maps")),
                                 ([f"static:{uid}"], [f"static:{gid}"]))

    def test_a_missing_mailbox_owner_ends_the_run_in_its_step(self):
        self.world.set_popuser()
        run = self.world.run()
        text = transcript()
        pattern = re.compile(r"\AFatal error: torva::SystemError\(user popusernot found: [A-Z][A-Za-z ]+\)\n\Z")
        self.assertFatal(run, pattern, said=text[: text.index(UID_STEP) + len(UID_STEP) + 3])
        self.assertEqual(run.set("virtual_mailbox_base"), ["/var/qmail/mailnames"])
        self.assertEqual(run.set("virtual_uid_maps") + run.set("virtual_gid_maps") + run.set("virtual_transport"), [])
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))


class PanelConfigurationTest(RunTest):
    def mail_names(self, text):
        self.world.reset()
        PANEL_CONF.parent.mkdir(exist_ok=True)
        PANEL_CONF.write_bytes(text.encode())
        run = self.world.run()
        # Nothing that is wrong with the file is worth a line.
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)
        base = run.set("virtual_mailbox_base")
        expected = golden("master.cf.after").decode().replace("/var/qmail/mailnames", base[0])
        self.assertEqual(MASTER_CF.read_text(), expected)
        return base

    def test_the_mail_names_directory_comes_from_the_file(self):
        default = "/var/qmail/mailnames"
        rows = [
            ("set", "TORVA_MAILNAMES_D /data/mail\n", "/data/mail"),
            ("a comment and blanks", "# c\n\n \tTORVA_MAILNAMES_D \t /data/mail   # where\n", "/data/mail"),
            ("the last definition", "TORVA_MAILNAMES_D /a\nX y\nTORVA_MAILNAMES_D /b\n", "/b"),
            ("no line end", "TORVA_MAILNAMES_D /data/mail", "/data/mail"),
            ("a blank inside", "TORVA_MAILNAMES_D /data/my mail\n", "/data/my mail"),
            ("a line end of two characters", "TORVA_MAILNAMES_D /data/mail\r\n", "/data/mail"),
            ("no blank after the name", "TORVA_MAILNAMES_D=/data/mail\n", default),
            ("no value", "TORVA_MAILNAMES_D\n", default),
            ("a comment in place of the value", "TORVA_MAILNAMES_D # /data/mail\n", default),
            ("another name", "TORVA_MAILNAMES /data/mail\nTORVA_MAILNAMES_DIR /x\n", default),
            ("an empty file", "", default),
            ("hostile bytes", "\0\0\xff\n=\n" + "x" * 100_000 + "\nTORVA_MAILNAMES_D /data/mail\n", "/data/mail"),
        ]
        for what, text, expected in rows:
            with self.subTest(what):
                self.assertEqual(self.mail_names(text), [expected])

    def test_a_missing_file_means_the_default_and_no_word(self):
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertEqual(run.set("virtual_mailbox_base"), ["/var/qmail/mailnames"])

    def test_a_file_that_is_a_directory_means_the_default(self):
        PANEL_CONF.mkdir(parents=True)
        run = self.world.run()
        self.assertEqual(run.err, transcript())
        self.assertEqual(run.set("virtual_mailbox_base"), ["/var/qmail/mailnames"])


class DatabaseTest(RunTest):
    def messages(self, password):
        PASSWORD.parent.mkdir(exist_ok=True)
        PASSWORD.write_bytes(password)
        run = self.world.run(debug=None)
        self.assertCompleted(run)
        self.assertEqual(run.err, run.out)
        self.assertEqual(len([c for c in run.calls if "-i" in c.argv]), 1)
        return run.out

    def test_without_a_password_file_the_messages_go_to_both_streams_and_the_run_goes_on(self):
        run = self.world.run(debug=None)
        self.assertEqual((run.status, run.err, run.out), (0, NO_DATABASE, NO_DATABASE))

    def test_an_empty_password_file_cannot_be_read(self):
        rest = NO_DATABASE.split("\n", 1)[1]
        self.assertRegex(self.messages(b""), r"\AUnable to read admin password file: [A-Z][^\n]+\n" + re.escape(rest) + r"\Z")

    def test_a_server_that_does_not_answer_is_named_and_the_password_is_not(self):
        rest = NO_DATABASE.split("\n", 1)[1]
        said = self.messages(b"hush-hush\n")
        self.assertRegex(said, r"\AUnable to connect to Torva Database: [^\n]+\n" + re.escape(rest) + r"\Z")
        self.assertNotIn("hush", said)


if __name__ == "__main__":
    main()
