"""What later versions of Postfix say besides their answers disturbs no run; a Postfix that cannot make the panel's
tables ends it, and the error has Postfix's words."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import commands, golden, transcript
from newerwords import (VERSIONS, not_changed_words, postconf_words, redirect_words, table_words, unsupported_words)
from runworld import CONFIGURATION_ERROR, DATABASE_ERROR, MAIN_CF, MASTER_CF, TABLES, TORVA, RunTest, fatal, main

ALIAS_STEP = " verifying that system aliases configured properly..."
DOMAIN_STEP = " creating virtual alias domain for this host hostname..."


class NewerPostfixTest(RunTest):
    def say(self, postconf="", table=lambda tool, path: ""):
        """From now on the fakes say this, and answer as before."""
        self.world.rule(tool="postalias", default=1, stderr=table("postalias", "/etc/aliases"))
        for name in TABLES:
            path = TORVA / name
            for options in (["-r"], ["-r", "-i"], ["-s"], ["-d", "-"], []):
                self.world.rule(tool="postmap", args=[*options, f"hash:{path}"], default=1, stderr=table("postmap", path))
        self.world.rule(tool="postconf", default=1, stderr=postconf)

    def assertSameRun(self, run, aliases, golden_commands="first_run.commands"):
        """The run that every other Postfix gets; postalias alone writes to the caller's standard error."""
        text = transcript()
        if golden_commands == "first_run.commands":
            self.assertEqual(run.err, text.replace(ALIAS_STEP, ALIAS_STEP + 2 * aliases))
        self.assertEqual(run.commands, [str(command) for command in commands(golden_commands)])
        self.assertCompleted(run)

    def test_words_about_later_versions_change_nothing_of_a_run(self):
        for version in VERSIONS:
            with self.subTest(version):
                self.world.reset()
                self.say(postconf_words(version), lambda tool, path: table_words(version, tool, path))
                self.assertSameRun(self.world.run(), table_words(version, "postalias", "/etc/aliases"))
                self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.after"))

    def test_words_about_later_versions_change_nothing_of_a_second_run(self):
        for version in VERSIONS:
            with self.subTest(version):
                self.world.reset()
                self.assertCompleted(self.world.run())
                self.world.forget()
                self.say(postconf_words(version), lambda tool, path: table_words(version, tool, path))
                self.assertSameRun(self.world.run(), "", "second_run.commands")

    def test_empty_values_stay_empty_beside_the_warnings(self):
        """Warnings are all that postconf writes about a parameter that it does not know."""
        for version in VERSIONS:
            with self.subTest(version):
                self.world.reset()
                said = "postconf: warning: transport_maps: unknown parameter\n" + postconf_words(version)
                self.world.rule(args=["-h", "transport_maps"], stderr=said)
                run = self.world.run()
                self.assertEqual(run.set("transport_maps"), ["hash:/var/spool/postfix/torva/transport"])
                self.assertCompleted(run)

    def test_tables_that_postfix_redirects_are_tables_like_others(self):
        self.say(postconf_words("3.11"), lambda tool, path: redirect_words(tool, path, "lmdb"))
        self.assertSameRun(self.world.run(), redirect_words("postalias", "/etc/aliases", "lmdb"))

    def test_a_postfix_without_berkeley_db_ends_the_run_at_the_first_table_before_main_cf_is_touched(self):
        self.world.rule(tool="postmap", exit=1, stderr=unsupported_words("postmap"))
        run = self.world.run()
        self.assertFatal(run, fatal(DATABASE_ERROR, unsupported_words("postmap")))
        self.assertEqual(run.commands[-1], f"/usr/sbin/postmap -r hash:{TORVA / TABLES[0]}")
        self.assertFalse([command for command in run.commands if "postconf -e" in command])
        self.assertEqual(MAIN_CF.read_text(), "# the administrator's\n")
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))

    def test_a_redirect_to_a_type_that_is_only_written_whole_ends_the_run_at_the_first_record(self):
        path = TORVA / "virtual"
        self.world.rule(args=["-r", "-i", f"hash:{path}"], exit=1, stderr=not_changed_words(path))
        run = self.world.run()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, not_changed_words(path)))
        self.assertEqual(run.commands[-1].splitlines()[0], f"/usr/sbin/postmap -r -i hash:{path}")
        self.assertTrue(run.err.split("Fatal error: ")[0].splitlines()[-1].startswith(
            ("Unable to get mailnames", DOMAIN_STEP)), run.err)
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))


if __name__ == "__main__":
    main()
