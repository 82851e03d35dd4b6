"""List-valued parameters: the administrator's value, and the one that is written."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from runworld import BLACKLISTS, LOCAL_NETWORKS, NO_RELAY, NON_AUTH, RunTest, main

SASL = "permit_sasl_authenticated"
CLOSED = f"permit_mynetworks, {NO_RELAY}, reject_unauth_destination"


def table(name):
    return "hash:/var/spool/postfix/torva/" + name


class ListsTest(RunTest):
    def written(self, name, value, **others):
        """Values that a run writes to a parameter that holds this value."""
        self.world.reset()
        self.world.params(myhostname="localhost.localdomain", **others)
        self.world.params(**{name: value})
        run = self.world.run()
        self.assertCompleted(run)
        return run.set(name)

    def test_a_table_is_appended_unless_an_element_equals_it(self):
        for name, entry in (("virtual_mailbox_domains", table("virtual_domains")),
                            ("virtual_alias_maps", table("virtual")),
                            ("virtual_mailbox_maps", table("vmailbox")),
                            ("transport_maps", table("transport"))):
            rows = [
                ("", [entry]), (" \t, ,", [entry]), ("$x", [f"$x, {entry}"]), ("a b", [f"a b, {entry}"]),
                ("a,b\tc", [f"a,b\tc, {entry}"]), ("  a", [f"  a, {entry}"]),
                (entry, []), (f"a {entry}", []), (f"{entry},a", []), (f"a\t{entry}\tb", []), (f"a,,{entry},,", []),
                (entry.upper(), [f"{entry.upper()}, {entry}"]), (entry + ".db", [f"{entry}.db, {entry}"]),
                (f"{{ {entry} }}", []), (f"{{{entry}}}", [f"{{{entry}}}, {entry}"]),
            ]
            for value, expected in rows:
                with self.subTest(name, value=value):
                    self.assertEqual(self.written(name, value), expected)

    def test_virtual_alias_domains_needs_nothing_when_it_refers_to_virtual_alias_maps(self):
        entry = table("virtual")
        rows = [("$virtual_alias_maps", []), ("", [entry]), ("example.org", [f"example.org, {entry}"]),
                ("example.org, $virtual_alias_maps", []), ("x$virtual_alias_mapsx", []), (entry, []),
                ("${virtual_alias_maps}", [f"${{virtual_alias_maps}}, {entry}"]),
                ("$(virtual_alias_maps)", [f"$(virtual_alias_maps), {entry}"]),
                ("virtual_alias_maps", [f"virtual_alias_maps, {entry}"])]
        for value, expected in rows:
            with self.subTest(value):
                self.assertEqual(self.written("virtual_alias_domains", value), expected)

    def test_sender_restrictions_get_the_three_entries_each_unless_it_is_there(self):
        name = "smtpd_sender_restrictions"
        rows = [
            ("nothing yet", "", [BLACKLISTS, f"{BLACKLISTS}, {SASL}", f"{BLACKLISTS}, {SASL}, {NON_AUTH}"]),
            ("an administrator's own", "reject_unknown_sender_domain",
             [f"reject_unknown_sender_domain, {BLACKLISTS}",
              f"reject_unknown_sender_domain, {BLACKLISTS}, {SASL}",
              f"reject_unknown_sender_domain, {BLACKLISTS}, {SASL}, {NON_AUTH}"]),
            ("all there", f"{BLACKLISTS}, {SASL}, {NON_AUTH}", []),
            ("all there in another order and spelling", f"{NON_AUTH},{SASL} ,\t{BLACKLISTS} ,x", []),
            ("one missing", f"{BLACKLISTS}, {NON_AUTH}", [f"{BLACKLISTS}, {NON_AUTH}, {SASL}"]),
            ("two blanks inside an entry make another entry", BLACKLISTS.replace(" ", "  ") + f", {SASL}, {NON_AUTH}",
             [BLACKLISTS.replace(" ", "  ") + f", {SASL}, {NON_AUTH}, {BLACKLISTS}"]),
            ("entries without a comma between them are one", f"{BLACKLISTS} {SASL}, {NON_AUTH}",
             [f"{BLACKLISTS} {SASL}, {NON_AUTH}, {BLACKLISTS}"]),
            ("the same key with another table", "check_sender_access hash:/x",
             [f"check_sender_access hash:/x, {BLACKLISTS}", f"check_sender_access hash:/x, {BLACKLISTS}, {SASL}",
              f"check_sender_access hash:/x, {BLACKLISTS}, {SASL}, {NON_AUTH}"]),
            ("separators alone are a value", ",",
             [f",, {BLACKLISTS}", f",, {BLACKLISTS}, {SASL}", f",, {BLACKLISTS}, {SASL}, {NON_AUTH}"]),
        ]
        for what, value, expected in rows:
            with self.subTest(what):
                self.assertEqual(self.written(name, value), expected)

    def test_the_relay_is_closed_from_any_value(self):
        name = "smtpd_recipient_restrictions"
        steps = ["permit_mynetworks", f"permit_mynetworks, {NO_RELAY}", CLOSED]
        for value in ("", "permit_mynetworks, reject_unauth_destination", "permit", "permit_mynetworks",
                      f"permit_mynetworks, {NO_RELAY}", CLOSED.replace(", ", ","), CLOSED + ", permit", CLOSED.upper()):
            with self.subTest(value):
                self.assertEqual(self.written(name, value), steps)
                self.assertEqual(self.world.param(name), CLOSED)

    def test_a_relay_that_is_closed_already_is_read_once_and_not_written(self):
        self.world.params(smtpd_recipient_restrictions=CLOSED)
        run = self.world.run()
        self.assertEqual(run.in_step(" set relaying to closed state"),
                         ["/usr/sbin/postconf -h smtpd_recipient_restrictions"])

    def test_plain_settings_are_written_whatever_they_were(self):
        settings = {
            "inet_interfaces": "all", "smtpd_tls_cert_file": "/etc/postfix/postfix_default.pem",
            "smtpd_tls_key_file": "$smtpd_tls_cert_file", "smtpd_tls_security_level": "may", "smtpd_use_tls": "yes",
            "smtp_tls_security_level": "may", "smtp_use_tls": "no", "smtpd_timeout": "3600s",
            "smtpd_proxy_timeout": "3600s", "smtp_send_xforward_command": "yes",
            "smtpd_authorized_xforward_hosts": "127.0.0.0/8", "smtpd_sasl_auth_enable": "yes",
            "virtual_mailbox_base": "/var/qmail/mailnames", "virtual_uid_maps": "static:30",
            "virtual_gid_maps": "static:31", "virtual_transport": "torva_virtual",
            "torva_virtual_destination_recipient_limit": "1",
        }
        for value in ("x", ""):
            self.world.reset()
            self.world.params(**dict.fromkeys(settings, value))
            run = self.world.run()
            self.assertEqual({name: run.set(name) for name in settings},
                             {name: [setting] for name, setting in settings.items()})
        self.world.params(**settings)
        self.world.forget()
        run = self.world.run()
        self.assertEqual([run.set(name) for name in settings], [[setting] for setting in settings.values()])


class MyNetworksTest(RunTest):
    host = LOCAL_NETWORKS

    def test_what_is_written_for_each_value_and_default(self):
        d = "127.0.0.0/8 192.0.2.0/24 [::1]/128"
        rows = [
            ("the default itself", d, d, self.host),
            ("shorter than the default", "10.0.0.0/8", d, self.host),
            ("nothing", "", d, self.host),
            ("the default and more", d + ", 10.0.0.0/8", d, self.host + ", 10.0.0.0/8"),
            ("what stands before the default is lost", "10.0.0.0/8, " + d, d, self.host),
            ("the suffix is glued on as it is", f"10.0.0.0/8 {d}x, 172.16.0.0/12", d, self.host + "x, 172.16.0.0/12"),
            ("the first of two defaults counts", f"{d}, {d}", d, f"{self.host}, {d}"),
            ("a default of one element", "10.0.0.0/8, 127.0.0.0/8", "127.0.0.0/8", self.host),
            ("longer, without the default and the loopback", "10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16", d,
             "10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16, 127.0.0.0/8"),
            ("longer, without the default, with the loopback", "10.0.0.0/8, 127.0.0.0/8 172.16.0.0/12", d,
             "10.0.0.0/8, 127.0.0.0/8 172.16.0.0/12"),
            ("of the same length, without the default", "x" * len(d), d, "x" * len(d) + ", 127.0.0.0/8"),
            ("an administrator's table is kept", d + ", hash:/var/spool/postfix/torva/poplock", d,
             self.host + ", hash:/var/spool/postfix/torva/poplock"),
            ("an empty default stands at the start of any value", "10.0.0.0/8", "", self.host + "10.0.0.0/8"),
            ("an empty default of an empty value", "", "", self.host),
            ("the default is compared byte for byte", d.replace(" ", ", "), d, d.replace(" ", ", ")),
        ]
        for what, value, default, expected in rows:
            with self.subTest(what):
                self.world.reset()
                self.world.defaults(mynetworks=default)
                self.world.params(mynetworks=value, myhostname="localhost.localdomain")
                run = self.world.run()
                self.assertCompleted(run)
                self.assertEqual(run.set("mynetworks"), [expected])
                self.assertEqual(run.after_step(" increase smtpd proxy timeout for waiting processing of large messages")[:2],
                                 ["/usr/sbin/postconf -h mynetworks", "/usr/sbin/postconf -h -d mynetworks"])

    def test_a_second_run_writes_the_same_networks_again(self):
        for value in ("", "10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16"):
            with self.subTest(value):
                self.world.reset()
                self.world.params(mynetworks=value)
                first = self.world.run().set("mynetworks")
                self.world.forget()
                self.assertEqual(self.world.run().set("mynetworks"), first)


if __name__ == "__main__":
    main()
