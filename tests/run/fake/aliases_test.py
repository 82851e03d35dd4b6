"""The check of the system aliases."""

import re
import shlex
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import golden
from runworld import CONFIGURATION_ERROR, MASTER_CF, RunTest, fatal, main, remove

STEP = " verifying that system aliases configured properly"
HEAD = ["/usr/sbin/postconf -h default_database_type", "/usr/sbin/postconf -h alias_maps"]
SECOND = "/usr/sbin/postconf -h alias_database"
EXPANDED = "/usr/sbin/postconf -hx alias_maps"
FAILED = re.compile(r"\AFatal error: torva::SystemError\(unable to re-index system alias map: [^\n]+\)\n\Z")
OWN = "hash:/var/spool/postfix/torva/aliases"


def index(*words):
    return "/usr/sbin/postalias " + " ".join(words)


def write(name, value):
    return shlex.join(["/usr/sbin/postconf", "-e", f"{name}={value}"])


class SystemAliasesTest(RunTest):
    def check(self, maps, database, kind="hash"):
        self.world.reset()
        self.world.defaults(alias_directory="/etc")
        self.world.params(alias_maps=maps, alias_database=database, default_database_type=kind,
                          myhostname="localhost.localdomain")
        run = self.world.run()
        self.assertCompleted(run)
        return run.in_step(STEP)

    def test_what_is_run_and_written_for_each_pair_of_values(self):
        a, b = "hash:/etc/aliases", "hash:/etc/more"
        rows = [
            ("nis is dropped, and the other parameter is written back too", f"{a}, nis:mail.aliases", a,
             [index(a), write("alias_maps", a), SECOND, index(a), write("alias_database", a)]),
            ("the default type, unchanged", "/etc/aliases", "",
             [index("/etc/aliases"), SECOND]),
            ("ldap and mysql are neither indexed nor dropped", "ldap:/etc/l.cf, mysql:/etc/m.cf", "pcre:/etc/p",
             [SECOND]),
            ("the panel's own table is left alone", f"{a}, {OWN}", "", [index(a), SECOND]),
            ("the panel's own table under another type is not the panel's own", OWN.replace("hash", "btree"), "",
             [index(OWN.replace("hash", "btree")), SECOND]),
            ("nothing but nis", "nis:mail.aliases", "", [write("alias_maps", ""), SECOND]),
            ("nis in the second only leaves the first alone", f"{a},{b}", f"nis:x, {a}",
             [index(a), index(b), SECOND, index(a), write("alias_database", a)]),
            ("nis in both", f"nis:x,{a}", "nis:y", [index(a), write("alias_maps", a), SECOND,
                                                    write("alias_database", "")]),
            ("both empty", "", "", [SECOND]),
            ("only separators", " , ,, ", "", [SECOND]),
            ("empty elements and white space", f",, \t{a} ,,nis:x,", "",
             [index(a), write("alias_maps", a), SECOND]),
            ("separators of the second are lost once something was dropped", "nis:x", f"{a},{b},,ldap:/x",
             [write("alias_maps", ""), SECOND, index(a), index(b), write("alias_database", f"{a}, {b}, ldap:/x")]),
            ("every indexed type", "btree:/etc/b, dbm:/etc/d, sdbm:/etc/s, cdb:/etc/c", "",
             [index("btree:/etc/b"), index("dbm:/etc/d"), index("sdbm:/etc/s"), index("cdb:/etc/c"), SECOND]),
            ("types are compared byte for byte", "Hash:/etc/x, NIS:y, lmdb:/etc/l, proxy:hash:/etc/z", "", [SECOND]),
            ("only the first colon counts", "hash:/etc/a:b", "", [index("hash:/etc/a:b"), SECOND]),
            ("the same map twice", f"{a}, {a}", "", [index(a), index(a), SECOND]),
            ("a reference stands for what it refers to", "$alias_database", f"{a}, {b}",
             [EXPANDED, index(a), index(b), SECOND, index(a), index(b)]),
            ("a reference to nothing", "$alias_database", "", [EXPANDED, SECOND]),
            ("a reference within an element", "hash:$alias_directory/aliases, ldap:$alias_database", "",
             [EXPANDED, index(a), SECOND]),
            ("a reference stays one when another element is dropped", f"$alias_database, nis:x, {b}", a,
             [EXPANDED, index(a), index(b), write("alias_maps", f"$alias_database, {b}"), SECOND,
              index(a), write("alias_database", a)]),
            ("nis behind a reference is the other parameter's to drop", "$alias_database", f"nis:x, {a}",
             [EXPANDED, index(a), SECOND, index(a), write("alias_database", a)]),
            ("the panel's own table and foreign types behind a reference are left alone", "$alias_database",
             f"{OWN}, ldap:/x", [EXPANDED, SECOND]),
        ]
        for what, maps, database, expected in rows:
            with self.subTest(what):
                self.assertEqual(self.check(maps, database), HEAD + expected)

    def test_an_element_without_a_type_has_the_default_one(self):
        for kind, expected in (("hash", [index("/etc/x")]), ("btree", [index("/etc/x")]), ("cdb", [index("/etc/x")]),
                               ("lmdb", []), ("", [])):
            with self.subTest(kind):
                self.assertEqual(self.check("/etc/x", "", kind), HEAD + expected + [SECOND])

    def test_a_reference_is_no_element_of_the_default_type(self):
        self.assertEqual(self.check("$alias_database, /etc/x", "hash:/etc/aliases", "nis"),
                         HEAD + [EXPANDED, index("hash:/etc/aliases"), write("alias_maps", "$alias_database"), SECOND,
                                 index("hash:/etc/aliases"), write("alias_database", "hash:/etc/aliases")])

    def test_the_second_parameter_may_refer_to_the_first(self):
        self.assertEqual(self.check("hash:/etc/aliases", "$alias_maps"),
                         HEAD + [index("hash:/etc/aliases"), SECOND, "/usr/sbin/postconf -hx alias_database",
                                 index("hash:/etc/aliases")])

    def test_an_expansion_that_fails_ends_the_run_before_any_map_is_built(self):
        self.world.params(alias_maps="$alias_database, nis:x")
        self.world.rule(args=["-hx", "alias_maps"], exit=1, stderr="postconf: fatal: no\n")
        run = self.world.run()
        self.assertFatal(run, fatal(CONFIGURATION_ERROR, "postconf: fatal: no\n"))
        self.assertEqual(run.in_step(STEP), HEAD + [EXPANDED])
        self.assertEqual(self.world.param("alias_maps"), "$alias_database, nis:x")

    def test_half_made_indexes_are_gone_before_postalias_runs_and_after_it_fails(self):
        half = Path("/etc/__db.aliases.db")
        half.touch()
        Path("/usr/sbin/postalias").write_text(f"#!/bin/sh\ntest ! -e {half} && touch {half} && exit 1\n")
        self.world.params(alias_maps="hash:/etc/aliases", myhostname="localhost.localdomain")
        run = self.world.run()
        self.assertFatal(run, FAILED)
        self.assertFalse(half.exists())
        # It was the tool that failed, and not our look for the file.
        half.touch()
        Path("/usr/sbin/postalias").write_text(f"#!/bin/sh\ntest ! -e {half}\n")
        self.assertCompleted(self.world.run())

    def test_an_element_with_a_blank_is_one_element_and_two_words_for_the_shell(self):
        Path("/etc/more").touch()
        self.assertEqual(self.check("hash:/etc/aliases hash:/etc/more", ""),
                         HEAD + [index("hash:/etc/aliases", "hash:/etc/more"), SECOND])

    def test_the_command_line_goes_through_the_shell(self):
        Path("/etc/a b").touch()
        self.assertEqual(self.check('hash:"/etc/a b"', ""), HEAD + [index("'hash:/etc/a b'"), SECOND])

    def test_a_missing_source_is_created_empty_before_postalias_runs_on_it(self):
        remove("/etc/aliases")
        self.world.params(alias_maps="hash:/etc/aliases", myhostname="localhost.localdomain")
        run = self.world.run()
        self.assertCompleted(run)
        self.assertEqual([c.source["size"] for c in run.calls if c.tool == "postalias"], [0, 0])
        self.assertEqual(Path("/etc/aliases").read_bytes(), b"")

    def test_a_present_source_keeps_its_content(self):
        text = Path("/etc/aliases").read_bytes()
        self.assertCompleted(self.world.run())
        self.assertEqual(Path("/etc/aliases").read_bytes(), text)

    def test_a_source_that_cannot_be_created_is_left_to_postalias(self):
        self.world.params(alias_maps="hash:/nowhere/aliases")
        run = self.world.run()
        self.assertFatal(run, FAILED)
        self.assertEqual(run.in_step(STEP), HEAD + [index("hash:/nowhere/aliases")])
        self.world.reset()
        self.world.params(alias_maps="hash:/nowhere/aliases")
        self.world.rule(tool="postalias", exit=0)
        self.assertCompleted(self.world.run())

    def test_a_failing_postalias_ends_the_run_after_the_earlier_maps_and_before_the_parameter(self):
        self.world.params(alias_maps="hash:/etc/aliases, nis:x, hash:/etc/more, hash:/etc/last")
        self.world.rule(tool="postalias", nth=2, exit=1, stderr="postalias: fatal: no\n")
        run = self.world.run()
        self.assertFatal(run, FAILED)
        self.assertEqual(run.in_step(STEP), HEAD + [index("hash:/etc/aliases"), index("hash:/etc/more")])
        self.assertIn(STEP + "...postalias: fatal: no\nFatal error: ", run.err)
        self.assertEqual(self.world.param("alias_maps"), "hash:/etc/aliases, nis:x, hash:/etc/more, hash:/etc/last")
        self.assertEqual(MASTER_CF.read_bytes(), golden("master.cf.before"))

    def test_the_panels_table_joins_what_the_check_left(self):
        for value, expected in (("nis:x", [OWN]), ("", [OWN]), ("ldap:/x", [f"ldap:/x, {OWN}"]),
                                (f"{OWN}", []), (f"hash:/etc/aliases {OWN}", [])):
            with self.subTest(value):
                self.world.reset()
                self.world.params(alias_maps=value, alias_database="")
                written = self.world.run().set("alias_maps")
                self.assertEqual(written, ([""] if value == "nis:x" else []) + expected)


if __name__ == "__main__":
    main()
