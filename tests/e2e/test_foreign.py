"""Other software that changes the packet filter and the routing policy while a provider runs."""

import time
import unittest

from lab import OTHER, SERVER, EndToEnd
from namespaces import SLOWNESS, eventually
from peers import Echo

WEB = (SERVER, 80)
POLICY = {
    "the rules of others": "ip rule flush; ip rule add pref 32766 lookup main;"
                           "ip rule add pref 32767 lookup default",
    "the route": "ip route flush table 7700",
    "the loopback interface": "ip address del 127.0.0.1/8 dev lo; ip link set lo down; sleep 0.5;"
                              "ip link set lo up; ip address replace 127.0.0.1/8 dev lo",
}


class ForeignChanges(EndToEnd):
    """Ours come back by themselves, with the flows that are open; where they do not last, the provider
    stops. By the packet filter's newer tables, and the older ones."""

    save = "iptables-save"
    changes = {"a table": "iptables -t mangle -F", "the other table": "iptables -F",
               "a chain": "iptables -t mangle -F TANDOR_ASK", "everything": "nft flush ruleset",
               "the tables": "nft delete table ip mangle; nft delete table ip filter", **POLICY}
    patience = 2
    fight = "nft flush ruleset"

    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, (OTHER, 53)))

    def in_force(self):
        """What is there of ours."""
        saved = [line for table in ("mangle", "filter")
                 for line in self.lab.app.run(self.save, "-t", table).splitlines()]
        return sorted([line for line in saved if "TANDOR" in line] +
                      [line for line in self.lab.app.run("ip", "rule").splitlines() if "7700" in line] +
                      self.lab.app.run("ip", "route", "show", "table", "7700",
                                       check=False).stdout.splitlines())

    def restored(self):
        return self.daemon.status()["rulesRestored"]

    def stop(self):
        super().stop()
        self.assertEqual(self.in_force(), [])

    def test_come_back(self):
        for name, change in self.changes.items():
            with self.subTest(name):
                self.start("directlyWhiteList")
                before, count = self.in_force(), self.restored()
                flows = [self.listed.connect(WEB), self.listed.connect((OTHER, 53), "udp")]
                for flow in flows:
                    flow.exchange([b"before"])
                self.lab.app.run("sh", "-c", change)
                begin = time.monotonic()
                eventually(lambda: self.restored() > count, name)
                self.assertLess(time.monotonic() - begin, self.patience * SLOWNESS)
                self.assertEqual(self.in_force(), before)
                for kind in ("tcp", "udp"):
                    self.assertWay("eth0", self.listed, WEB, kind)
                for flow in flows:
                    self.assertEqual(flow.exchange([b"after"]), [b"after"])
                    flow.close()
                # It is seen once, and what is not ours is nobody's business here.
                self.lab.app.run("sh", "-c", "iptables -t nat -N FOREIGN; iptables -t nat -X FOREIGN;"
                                             "ip rule add pref 9 lookup 9; ip rule del pref 9")
                time.sleep(1.5)
                self.assertEqual(self.restored(), count + 1)

    def test_are_not_fought_for(self):
        self.start("directlyWhiteList")
        before, count = self.in_force(), self.restored()
        for number in range(6):
            self.assertEqual(self.in_force(), before)
            self.lab.app.run("sh", "-c", self.fight)
            eventually(lambda: self.restored() > count + number or
                       self.daemon.status()["state"] != "running", "it is noticed")
        eventually(lambda: self.daemon.status()["state"] == "failed", "it gives up")
        self.assertEqual(self.restored(), count + 5)
        self.assertEqual(self.in_force(), [])
        self.assertEqual(self.lab.traces(), [])
        self.assertWay("native", self.listed, WEB)
        self.assertRegex(self.daemon.log(), "rules: taken away more than 5 times in a minute, last")
        self.start("directlyWhiteList")
        self.assertWay("eth0", self.listed, WEB)

    def test_nothing_comes_back_after_a_stop(self):
        for delay in range(160, 260, 10):
            self.start("directlyWhiteList")
            self.lab.app.run("sh", "-c", self.fight)
            time.sleep(delay / 1000)
            self.stop()
        time.sleep(0.5)
        self.assertEqual(self.in_force(), [])


class ForeignChangesOfOlderTables(ForeignChanges):
    wrapper = ("unshare", "--mount", "sh", "-c",
               'mount --bind /usr/sbin/xtables-legacy-multi /usr/sbin/xtables-nft-multi; exec "$0" "$@"')
    save = "iptables-legacy-save"
    changes = {"a table": "iptables-legacy -t mangle -F", "the other table": "iptables-legacy -F",
               **POLICY}
    patience = 6
    fight = "ip route flush table 7700"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if cls.lab.app.run(cls.save, "-t", "mangle", check=False).returncode != 0:
            raise unittest.SkipTest("the kernel has no older tables")
