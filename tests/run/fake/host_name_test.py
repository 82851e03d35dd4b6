"""The repair of the host name, and its use."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from goldens import transcript
from runworld import NO_DATABASE, RunTest, main, remove

STEP = " make sure $myhostname and $mydomain are configured properly (FQDN)"
HOST_STEP = " creating virtual alias domain for this host hostname"
ASK = "hostname -f"
READ_DOMAIN = "/usr/sbin/postconf -h mydomain"
WARNING = ("Detected problems with $myhostname parameter in Postfix main.cf, but unable to execute `hostname -f`, "
           "leave $myhostname untouched\n")
RESERVED = ("postmaster", "mailer-daemon", "root", "anonymous", "drweb")


def host(name):
    return f"/usr/sbin/postconf -e myhostname={name}"


def domain(name):
    return f"/usr/sbin/postconf -e mydomain={name}"


def put(name):
    return "".join(f"{local}@{name} {local}@localhost.localdomain\n" for local in RESERVED)


class HostNameTest(RunTest):
    def repair(self, myhostname, answer="host.example.net\n", mydomain="localdomain"):
        self.world.reset()
        self.world.params(myhostname=myhostname, mydomain=mydomain)
        self.world.hostname(answer)
        run = self.world.run()
        self.assertCompleted(run)
        return run

    def test_a_name_with_a_dot_is_left_alone_and_mydomain_is_not_read(self):
        for name in ("host.example.net", "localhost.localdomain", ".", "host.", "$mydomain.x"):
            with self.subTest(name):
                run = self.repair(name)
                self.assertEqual(run.in_step(STEP), [])
                self.assertNotIn(READ_DOMAIN, run.commands)
                self.assertEqual(self.world.param("myhostname"), name)

    def test_localhost_becomes_localhost_localdomain_without_asking_hostname(self):
        for mydomain, expected in (("localdomain", [domain("localdomain")]), ("", [domain("localdomain")]),
                                   ("example.net", []), (".", [])):
            with self.subTest(mydomain):
                run = self.repair("localhost", mydomain=mydomain)
                self.assertEqual(run.in_step(STEP), [host("localhost.localdomain"), READ_DOMAIN, *expected])

    def test_another_name_without_a_dot_takes_the_first_line_of_hostname(self):
        rows = [
            ("the usual answer", "host.example.net\n", "host.example.net", "example.net"),
            ("no line end", "host.example.net", "host.example.net", "example.net"),
            ("white space around", " \t host.example.net \t\r\n", "host.example.net", "example.net"),
            ("more lines", "host.example.net\nother.example.org\n\n", "host.example.net", "example.net"),
            ("a short domain", "host.x\n", "host.x", "x"),
            ("upper case", "Host.Example.NET\n", "Host.Example.NET", "Example.NET"),
            ("two dots in a row", "host..x\n", "host..x", ".x"),
        ]
        for what, answer, name, derived in rows:
            with self.subTest(what):
                run = self.repair("vm", answer)
                self.assertEqual(run.in_step(STEP), [ASK, host(name), READ_DOMAIN, domain(derived)])

    def test_names_other_than_exactly_localhost_ask_hostname(self):
        for name in ("", "Localhost", "localhost1", "mail"):
            with self.subTest(name):
                self.assertEqual(self.repair(name).in_step(STEP)[:2], [ASK, host("host.example.net")])

    def test_a_dotted_mydomain_is_kept(self):
        run = self.repair("vm", mydomain="example.org")
        self.assertEqual(run.in_step(STEP), [ASK, host("host.example.net"), READ_DOMAIN])

    def test_an_answer_without_a_domain_leaves_mydomain_alone(self):
        for answer, name in (("vm2\n", "vm2"), ("vm\n", "vm"), ("host.\n", "host.")):
            with self.subTest(answer):
                run = self.repair("vm", answer)
                self.assertEqual(run.in_step(STEP), [ASK, host(name)])
                self.assertNotIn(READ_DOMAIN, run.commands)

    def test_an_answer_of_thousands_of_characters_is_taken_whole(self):
        name = "h" * 5000 + ".example.net"
        self.assertEqual(self.repair("vm", name + "\nx.y\n").set("myhostname"), [name])

    def test_the_exit_status_of_hostname_does_not_count(self):
        self.world.params(myhostname="vm")
        self.world.rule(tool="hostname", stdout="host.example.net\n", stderr="", exit=1)
        run = self.world.run()
        self.assertEqual(run.set("myhostname"), ["host.example.net"])
        self.assertNotIn(WARNING, run.err)

    def test_an_empty_or_blank_first_line_is_a_warning_and_the_run_goes_on_with_the_old_name(self):
        for answer in ("", "\n", "\nhost.example.net\n", "   \n", " \t\r\n", "  \nhost.example.net\n"):
            with self.subTest(answer):
                run = self.repair("vm", answer)
                self.assertEqual(run.in_step(STEP), [ASK])
                self.assertEqual(run.err, transcript().replace(STEP + "...", STEP + "..." + WARNING))
                self.assertEqual(run.out, NO_DATABASE)
                self.assertEqual(self.world.param("myhostname"), "vm")
                self.assertEqual([c.stdin for c in run.calls if "-i" in c.argv], [put("vm")])

    def test_the_warning_is_printed_without_the_switch_too(self):
        self.world.hostname("")
        run = self.world.run(debug=None)
        self.assertEqual((run.err, run.out), (WARNING + NO_DATABASE, NO_DATABASE))

    def test_a_missing_hostname_program_is_a_warning_after_the_words_of_the_shell(self):
        remove("/usr/bin/hostname")
        run = self.world.run()
        self.assertRegex(run.err, r"\.\.\.sh: [^\n]*hostname[^\n]*not found\n" + "Detected problems")
        self.assertIn(WARNING + "done\n", run.err)
        self.assertCompleted(run)


class HostDomainTest(RunTest):
    def host_step(self, name, mydestination):
        self.world.reset()
        self.world.params(myhostname=name, mydestination=mydestination)
        run = self.world.run()
        self.assertCompleted(run)
        return run

    def test_localhost_and_names_that_begin_with_it_get_no_alias_domain(self):
        # "localhost" itself is repaired first, so its own case is localhost.localdomain.
        for name in ("localhost", "localhost.localdomain", "localhost.example", "localhost."):
            with self.subTest(name):
                run = self.host_step(name, f"a, {name}, b")
                self.assertEqual(run.in_step(HOST_STEP), [])
                self.assertEqual([c for c in run.calls if "-i" in c.argv], [])
                self.assertEqual(self.world.param("mydestination"), f"a, {name}, b")

    def test_names_that_only_look_like_localhost_get_one(self):
        for name in ("localhost1.example.net", "Localhost.localdomain", "mylocalhost.localhost"):
            with self.subTest(name):
                run = self.host_step(name, "$myhostname")
                self.assertEqual([c.stdin for c in run.calls if "-i" in c.argv], [put(name)])

    def test_the_name_is_taken_out_of_mydestination_byte_for_byte(self):
        name = "host.example.net"
        rows = [
            ("$myhostname, host.example.net, localhost", ["$myhostname, localhost"]),
            ("host.example.net", [""]),
            ("host.example.net host.example.net,host.example.net", [""]),
            ("a b,host.example.net\tc", ["a, b, c"]),
            ("a, , host.example.net, , b", ["a, b"]),
            ("$myhostname, localhost", []),
            ("a  b,c", []),
            ("", []),
            ("Host.example.net, host.example.net., xhost.example.net, hash:host.example.net", []),
        ]
        for value, written in rows:
            with self.subTest(value):
                run = self.host_step(name, value)
                self.assertEqual(run.set("mydestination"), written)
                self.assertEqual(run.in_step(HOST_STEP)[0], "/usr/sbin/postconf -h mydestination")

    def test_the_repaired_name_is_the_one_taken_out(self):
        self.world.params(mydestination="vm, host.example.net, x")
        self.assertEqual(self.world.run().set("mydestination"), ["vm, x"])

    def test_the_reserved_records_come_in_this_order_in_one_put(self):
        run = self.host_step("host.example.net", "")
        puts = [c for c in run.calls if "-i" in c.argv]
        self.assertEqual([(c.argv, c.stdin) for c in puts],
                         [(["/usr/sbin/postmap", "-r", "-i", "hash:/var/spool/postfix/torva/virtual"],
                           put("host.example.net"))])

    def test_mydestination_is_written_before_the_records(self):
        run = self.host_step("host.example.net", "host.example.net")
        self.assertEqual([c.split()[0] for c in run.in_step(HOST_STEP)],
                         ["/usr/sbin/postconf", "/usr/sbin/postconf", "/usr/sbin/postmap"])

    def test_a_refused_put_ends_the_run_after_mydestination_was_written(self):
        self.world.params(myhostname="host.example.net", mydestination="host.example.net, x")
        self.world.rule(tool="postmap", nth=8, exit=1)
        run = self.world.run()
        self.assertEqual(run.status, 1)
        self.assertEqual(self.world.param("mydestination"), "x")
        self.assertEqual(run.out, "Fatal error: torva::mail::postfix::PostfixConfigurationError(unknown error)\n")


if __name__ == "__main__":
    main()
