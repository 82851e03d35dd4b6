"""torva-postfixctl on later versions of Postfix: stand-ins for Postfix's programs print the warnings of 3.10 and 3.11,
and then execute the real ones. The warnings are in tests/run/newerwords.py."""

import os
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "run"))
import ctlworld
from ctlworld import BACKUPS, MAIN_CF, MASTER_CF, POSTFIX, TABLES, TOOL, CtlTest, ctl, remove, run, tree, write
from newerwords import (DROPPED, VERSIONS, not_changed_words, postconf_words, redirect_words, table_words,
                        unsupported_words)

POSTCONF, POSTMAP, POSTALIAS = (Path("/usr/sbin", name) for name in ("postconf", "postmap", "postalias"))
# How a stand-in begins; it ends by executing the real program.
HEAD = """#!/bin/sh
say() { printf '%s' "$1" >&2; }
directory=/etc/postfix
case " $* " in *' -c '*) directory=${*#*-c }; directory=${directory%% *} ;; esac
for last; do :; done
"""
DROPPED_TEXT = ", ".join(f"{name} ({text})" for name, text in DROPPED.items())


def quoted(text):
    return "'" + text.replace("'", "'\\''") + "'"


class NewerPostfixTest(CtlTest):
    def setUp(self):
        super().setUp()
        ctlworld.make_good_host()
        self.machine = run("postconf", "-h", "mail_version").splitlines()[-1]
        self.machine_warns_of_tables = "deprecated" in run("sh", "-c", ": >/run/table; postmap hash:/run/table")

    def stand_in(self, path, text):
        kept = Path(f"{path}.real")
        if not kept.exists():
            os.rename(path, kept)
            self.addCleanup(lambda: (remove(path), os.rename(kept, path)))
        ctlworld.program(path, HEAD + text + f'exec {kept} "$@"\n')

    def stand_in_postconf(self, version, main_cf_has=("smtpd_use_tls", "smtp_use_tls"), more=""):
        """It warns of what its main.cf sets, unless it edits main.cf or does not read it."""
        pattern = "|".join(main_cf_has)
        words = postconf_words(version, "DIRECTORY/main.cf")
        self.stand_in(POSTCONF, f"""
case $1 in -e | -m | -M* | -d) ;; *)
    if grep -qE '^({pattern}) *=' "$directory/main.cf"; then
        printf '%s' {quoted(words)} | sed "s#DIRECTORY#$directory#" >&2
    fi ;;
esac
{more}
""")

    def stand_in_tables(self, version):
        for path in (POSTMAP, POSTALIAS):
            words = quoted(table_words(version, path.name, "TABLE"))
            self.stand_in(path, f"""case $last in hash:*) printf '%s' {words} | sed "s#TABLE#${{last#*:}}#" >&2 ;; esac\n""")

    def stand_in_newer(self, version):
        self.stand_in_postconf(version)
        self.stand_in_tables(version)

    def only(self, outcome, subject):
        found = [f for f in outcome.objects() if f.get("subject") == subject]
        self.assertEqual(len(found), 1, outcome)
        return found[0]

    # ---- nothing is disturbed, and the operator hears of it

    def test_check_tells_in_one_finding_what_a_later_postfix_drops(self):
        for version in VERSIONS:
            with self.subTest(version):
                self.stand_in_newer(version)
                before = tree()
                outcome = self.assertStatus(0, ctl("check", "--json"))
                self.assertEqual(outcome.findings("stop"), [])
                hash_text = ", tables of the type hash (hash/btree support is deprecated. Please switch to cdb or lmdb.)"
                wanted = (DROPPED_TEXT + (hash_text if version == "3.11" or self.machine_warns_of_tables else "") +
                          f": the run works with Postfix {self.machine}; a later Postfix drops what is named here")
                self.assertEqual(self.only(outcome, "deprecated"),
                                 {"verb": "check", "level": "ok", "subject": "deprecated", "text": wanted})
                self.assertEqual(difference_of(before), {})
                text = " ".join(self.assertStatus(0, ctl("check")).out.split())
                self.assertIn(f"ok deprecated {wanted}", text)

    def test_check_tells_of_what_a_run_will_set_not_of_what_main_cf_has(self):
        self.stand_in_newer("3.10")
        write(MAIN_CF, MAIN_CF.read_text() + "smtpd_enforce_tls = no\n")
        self.assertNotIn("use_tls", MAIN_CF.read_text())
        text = self.only(self.assertStatus(0, ctl("check", "--json")), "deprecated")["text"]
        self.assertIn("smtpd_use_tls", text)
        self.assertNotIn("smtpd_enforce_tls", text)

    def test_words_about_later_versions_disturb_no_verb(self):
        for version in VERSIONS:
            with self.subTest(version):
                super().setUp()
                ctlworld.make_good_host()
                self.stand_in_newer(version)
                self.walk_through_verbs()

    def walk_through_verbs(self):
        main_cf, master_cf = MAIN_CF.read_bytes(), MASTER_CF.read_bytes()
        applied = self.assertStatus(0, ctl("apply", "--json"))
        self.assertNotIn("will be removed", "".join(
            f.get("text", "") for f in applied.objects() if f.get("subject") != "deprecated"))
        self.assertEqual([f for f in applied.findings("warning", "stop", "failed") if f["subject"] == "postfix-check"],
                         [], applied)
        diff = self.assertStatus(0, ctl("diff", "--json"))
        self.assertEqual(diff.out, "")
        run("sh", "-c", f"echo a@example.com b@example.com | postmap -r -i hash:{TABLES}/virtual")
        diff = self.assertStatus(1, ctl("diff", "--json"))
        self.assertEqual(diff.out.count("\n"), 1, diff)
        again = self.assertStatus(0, ctl("apply", "--json"))
        self.assertIn("1 in virtual", "".join(f["text"] for f in again.findings("done") if f["subject"] == "records"))
        preview = self.assertStatus(0, ctl("preview", "--json"))
        verdict = [o for o in preview.objects() if o.get("change") == "postfix-check"]
        self.assertEqual([(o["status"], o["text"]) for o in verdict], [(0, "")], preview)
        self.assertEqual(self.only(preview, "deprecated")["level"], "ok")
        self.assertStatus(0, ctl("rollback"))
        self.assertEqual((MAIN_CF.read_bytes(), MASTER_CF.read_bytes()), (main_cf, master_cf))

    def test_a_postfix_that_fails_is_told_without_its_warnings(self):
        words = postconf_words("3.11") + "postconf: fatal: /etc/postfix/main.cf, line 9: what is this\n"
        self.stand_in(POSTCONF, f"case $* in *-x*) say {quoted(words)}; exit 1 ;; esac\n")
        found = self.only(self.assertStatus(1, ctl("check", "--json")), "main.cf")
        self.assertEqual(found["text"], "Postfix does not read it: postconf: fatal: /etc/postfix/main.cf, line 9: what is this")

    # ---- without Berkeley DB

    def without_berkeley_db(self, version):
        """For the system's aliases, too, as in a Postfix that was built without it."""
        level = "non_bdb_migration_level = disable\n" if version == "3.11" else ""
        words = postconf_words(version, "main.cf")
        write(MAIN_CF, re.sub(r"(?m)^(alias_maps|alias_database).*\n", "", MAIN_CF.read_text()) +
              "alias_maps =\nalias_database =\n")
        self.stand_in(POSTCONF, f"case $* in *-m*) {POSTCONF}.real -m | grep -vx hash; exit ;;\n"
                                f"*-x) printf '%s' {quoted(level)}; {POSTCONF}.real \"$@\" | grep -v ^non_bdb_; exit ;;\n"
                                f"*'-h config_directory') say {quoted(words)} ;; esac\n")
        for path in (POSTMAP, POSTALIAS):
            self.stand_in(path, f"case $last in hash:*) say {quoted(unsupported_words(path.name))}; exit 1 ;; esac\n")

    def test_missing_hash_is_a_stop_with_the_words_that_really_end_a_run(self):
        for version in VERSIONS:
            with self.subTest(version):
                self.without_berkeley_db(version)
                before = tree()
                outcome = self.assertStatus(1, ctl("check", "--json"))
                found = self.only(outcome, "map-type")
                self.assertEqual((found["level"], found["text"]), (
                    "stop", "hash is not in postconf -m: the run would end at a table of the panel: "
                            "postmap: fatal: unsupported map type: hash"))
                self.assertEqual(self.only(outcome, "deprecated")["text"], (
                    f"{DROPPED_TEXT}: a version later than Postfix {self.machine} drops what is named here"))
                self.assertEqual(difference_of(before), {})
                if version == "3.11":
                    self.assertIn("postconf default_database_type=lmdb && postfix non-bdb enable-redirect", found["action"])
                    self.assertIn("NON_BERKELEYDB_README", found["action"])
                else:
                    self.assertEqual(found["action"], "install a Postfix with Berkeley DB, such as Debian's")
                said = run(str(TOOL), check=False)
                self.assertIn("Fatal error: torva::mail::postfix::PostfixDatabaseError(" + unsupported_words("postmap") + ")", said)

    def test_apply_changes_nothing_where_hash_is_missing(self):
        self.without_berkeley_db("3.11")
        before = tree()
        self.assertStatus(1, ctl("apply"))
        self.assertEqual(difference_of(before), {})
        self.assertFalse(BACKUPS.exists() and list(BACKUPS.iterdir()))

    def redirect_to(self, target, postmap=""):
        """A Postfix that reads hash as another type, which it knows."""
        answers = (f"non_bdb_migration_level = enable-redirect\ndefault_database_type = {target}\n"
                   "default_cache_db_type = lmdb\n")
        self.stand_in(POSTCONF, f"case $* in *-x) printf '%s' {quoted(answers)}; {POSTCONF}.real \"$@\" | "
                                f"grep -vE '^(default_database_type|default_cache_db_type|non_bdb_.*) ='; exit ;; esac\n")
        self.stand_in(POSTMAP, postmap)

    def test_redirect_to_a_type_that_takes_no_records_is_a_stop_with_the_way_out(self):
        words = quoted(not_changed_words("TABLE"))
        self.redirect_to("cdb", f"""case $* in *'-i hash:'*)
            printf '%s' {words} | sed "s#TABLE#${{last#*:}}#g" >&2; exit 1 ;; esac\n""")
        found = self.only(self.assertStatus(1, ctl("check", "--json")), "map-type")
        self.assertEqual((found["level"], found["text"]), (
            "stop", "the run would end at a table of the panel: postmap: redirecting hash:table to cdb:table; "
                    "postmap: fatal: unsupported non-bulk change request"))
        self.assertIn("default_database_type=lmdb", found["action"])

    def test_redirect_is_told_and_maps_are_looked_for_under_the_type_that_is_read(self):
        self.redirect_to("lmdb", f"case $last in hash:*) say {quoted(redirect_words('postmap', '/t', 'lmdb'))} ;; esac\n")
        write(MAIN_CF, MAIN_CF.read_text() + "virtual_alias_maps = hash:/etc/postfix/virtual\n"
              "smtp_tls_session_cache_database = btree:${data_directory}/smtp_scache\n")
        write(POSTFIX / "virtual", "")
        write(POSTFIX / "virtual.db", "")
        outcome = self.assertStatus(0, ctl("check", "--json"))
        self.assertEqual(self.only(outcome, "map-type")["text"], "hash, which Postfix reads as lmdb; pcre")
        self.assertEqual(self.only(outcome, "map")["text"],
                         "hash:/etc/postfix/virtual: there is no /etc/postfix/virtual.lmdb")
        write(POSTFIX / "virtual.lmdb", "")
        self.assertEqual(self.only(self.assertStatus(0, ctl("check", "--json")), "map")["level"], "ok")

    def test_records_that_only_the_former_type_holds_are_a_stop(self):
        write(TABLES / "virtual", "a@example.com b@example.com\n")
        run("postmap", f"hash:{TABLES}/virtual")
        self.redirect_to("lmdb")
        found = self.only(self.assertStatus(1, ctl("check", "--json")), "records")
        self.assertEqual((found["level"], found["text"]), (
            "stop", f"a table of the panel cannot be read: {TABLES}/virtual.db is there, but Postfix reads {TABLES}/virtual.lmdb"))


class RealRedirectTest(CtlTest):
    """On a Postfix that has the redirect itself, 3.11 and later."""

    def setUp(self):
        super().setUp()
        if not ctlworld.postconf("-dh", "non_bdb_migration_level"):
            self.skipTest("this Postfix redirects no types of tables")
        ctlworld.make_good_host()

    def findings(self, subject):
        return [f for f in ctl("check", "--json").objects() if f.get("subject") == subject]

    def test_the_way_out_of_a_redirect_to_cdb_is_the_command_that_check_tells(self):
        run("postconf", "default_database_type=cdb", "default_cache_db_type=lmdb", "non_bdb_migration_level=enable-redirect")
        write(MAIN_CF, MAIN_CF.read_text())
        stop = self.findings("map-type")[0]
        self.assertEqual((stop["level"], stop["text"]), (
            "stop", "the run would end at a table of the panel: postmap: redirecting hash:table to cdb:table; "
                    "postmap: fatal: unsupported non-bulk change request"))
        self.assertIn("unsupported non-bulk change request", run(str(TOOL), check=False))
        run("sh", "-c", stop["action"].split(";")[0])
        write(MAIN_CF, MAIN_CF.read_text())
        self.assertEqual(self.findings("map-type")[0]["text"], "hash, which Postfix reads as lmdb; pcre")
        outcome = ctl("apply")
        self.assertEqual(outcome.status, 0, outcome)
        run("sh", "-c", f"echo a@example.com b@example.com | postmap -r -i hash:{TABLES}/virtual")
        self.assertEqual(run("sh", "-c", f"postmap -q a@example.com hash:{TABLES}/virtual 2>/dev/null"), "b@example.com\n")
        outcome = ctl("apply")
        self.assertIn("put back what the run dropped: 1 in virtual", outcome.out)
        self.assertEqual(run("sh", "-c", f"postmap -q a@example.com lmdb:{TABLES}/virtual"), "b@example.com\n")


def difference_of(before):
    """What has changed, except the programs, which stand-ins replace."""
    return {path: change for path, change in ctlworld.difference(before, tree()).items() if not path.startswith("/usr/sbin")}


if __name__ == "__main__":
    ctlworld.main()
