"""The networks of a host that has no address but the loopback one."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from lists_test import MyNetworksTest as OnAnyHost
from goldens import transcript
from runworld import main


class LoopbackOnlyTest(OnAnyHost):
    """Every row, with the list that such a host gets: odd, but intended."""

    host = "127.0.0.0/8, /32"

    def test_the_run_completes(self):
        run = self.world.run()
        self.assertEqual(run.set("mynetworks"), ["127.0.0.0/8, /32"])
        self.assertEqual(run.err, transcript())
        self.assertCompleted(run)

    def test_without_ipv6_each_run_adds_one_more_odd_network(self):
        """The default is then only the loopback network, and our list begins with that."""
        self.world.defaults(mynetworks="127.0.0.0/8")
        self.world.params(mynetworks="127.0.0.0/8", myhostname="localhost.localdomain")
        for run in range(1, 4):
            self.assertEqual(self.world.run().set("mynetworks"), ["127.0.0.0/8" + ", /32" * run])
            self.world.forget()


del OnAnyHost  # its own rows are for another host

if __name__ == "__main__":
    main()
