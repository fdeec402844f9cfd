"""The routing rules of others beside ours: their order, and the packets of taken flows meanwhile."""

import re
import signal

from lab import OTHER, SERVER, EndToEnd
from namespaces import eventually
from peers import Echo

WEB = (SERVER, 80)

#: What a VPN's script adds and removes; without preferences, as most do.
FULL_TUNNEL = ("rule add not fwmark 51820 table 51820", "rule add table main suppress_prefixlength 0")
OTHER_TUNNEL = ("rule add not fwmark 4242 table 51821", "rule add table main suppress_prefixlength 1")


class RoutingRules(EndToEnd):
    """Rules of others come in the order in which they would come without ours, and ours stays ahead."""

    #: Scripts, one after the other. The lists are long enough for several VPNs, and for one that flaps.
    tunnel_up, tunnel_down = "\n".join(FULL_TUNNEL), "\n".join(
        rule.replace("add", "del") for rule in reversed(FULL_TUNNEL))
    other_up, other_down = "\n".join(reversed(OTHER_TUNNEL)), "\n".join(
        rule.replace("add", "del") for rule in OTHER_TUNNEL)
    scenarios = {
        "up, down, up": (tunnel_up, tunnel_down, tunnel_up, tunnel_down),
        "flapping": (tunnel_up, tunnel_down + "\n" + tunnel_up) + (tunnel_down, tunnel_up) * 3,
        "two at once": (tunnel_up, other_up, tunnel_down, tunnel_up, other_down),
        "one by one": (*FULL_TUNNEL, *OTHER_TUNNEL),
        "with preferences": ("rule add pref 5210 fwmark 0x80000/0xff0000 lookup main", tunnel_up,
                             "rule add pref 5270 lookup 51820", "rule del pref 5210", tunnel_down),
        "the first preference": ("rule add pref 1 fwmark 9 lookup 9", tunnel_up, other_up, tunnel_down,
                                 "rule del pref 1"),
        "the preference of ours": ("rule add pref 32765 lookup 51820", other_up),
        "several at zero": ("rule add pref 0 fwmark 8 lookup local", tunnel_up, tunnel_down),
        "local elsewhere": ("rule add pref 1000 lookup local\nrule del pref 0", tunnel_up, tunnel_down),
    }

    #: Those that leave no place for ours once they have begun.
    early = {"the first preference"}

    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, (OTHER, 53)))
        self.lab.app.ip("".join(f"route add default via 10.8.0.1 dev vpn0 table {table}\n"
                                for table in (51820, 51821)))
        self.addCleanup(self.lab.app.ip, "route flush table 51820\nroute flush table 51821")
        self.addCleanup(self.as_at_first)

    def as_at_first(self):
        self.lab.app.run("sh", "-c", "while ip rule del pref 0; do :; done; ip rule flush;"
                                     "ip rule add pref 0 lookup local;"
                                     "ip rule add pref 32766 lookup main;"
                                     "ip rule add pref 32767 lookup default")

    def rules(self):
        """What they say, in order."""
        return [line.partition(":")[2].strip() for line in self.lab.app.run("ip", "rule").splitlines()]

    def others(self):
        return [rule for rule in self.rules() if "7700" not in rule]

    def is_ahead(self):
        ours = [number for number, rule in enumerate(self.rules()) if "7700" in rule]
        before = self.rules()[:ours[0]] if ours else []
        return len(ours) == 1 and all(rule.endswith("lookup local") for rule in before)

    def test_keep_their_order(self):
        for name, steps in self.scenarios.items():
            self.as_at_first()
            expected = [self.others()]
            for step in steps:
                self.lab.app.ip(step)
                expected.append(self.others())
            for start in {0, 0 if name in self.early else len(steps) // 2}:
                self.as_at_first()
                for number, step in enumerate((None, *steps)):
                    with self.subTest(name, start=start, number=number):
                        if step:
                            self.lab.app.ip(step)
                        if number == start:
                            self.start("directlyWhiteList")
                        self.assertEqual(self.others(), expected[number])
                        if number < start:
                            continue
                        eventually(self.is_ahead, "ours is ahead")
                        for address, kind in ((WEB, "tcp"), ((OTHER, 53), "udp")):
                            self.assertWay("eth0", self.listed, address, kind)
                            self.assertWay("native", self.unlisted, address, kind)
                self.stop()
                self.assertEqual(self.rules(), expected[-1])
        self.assertEqual(self.daemon.status().get("rulesRestored", 0), 0)

    def test_room_comes_back(self):
        """However often others come and go, there is a preference before the next."""
        self.start("directlyWhiteList")
        place = self.lab.app.run("ip", "rule")
        for _ in range(20):
            self.lab.app.ip(self.tunnel_up)
            eventually(self.is_ahead, "ours is ahead")
            self.lab.app.ip(self.tunnel_down)
        eventually(lambda: self.lab.app.run("ip", "rule") == place, "ours is where it was")

    def test_a_rule_that_cannot_be_passed(self):
        """Is said, and what it leads elsewhere goes nowhere."""
        self.lab.app.ip("rule add pref 0 not fwmark 51820 table 51820")
        self.addCleanup(self.lab.app.ip, "rule del pref 0 not fwmark 51820 table 51820")
        self.start("directlyWhiteList")
        eventually(lambda: "has the preference 0" in self.daemon.log(), "it is said")
        self.assertNothingStrays(self.listed.connect((OTHER, 53), "udp"))
        self.assertWay("native", self.unlisted, WEB)

    def assertNothingStrays(self, flow):
        """Of what a socket sends, nothing comes to its destination."""
        count = self.dropped()
        for _ in range(3):
            try:
                flow.send(b"stray")
            except PermissionError:  # what is dropped is said so
                pass
        eventually(lambda: self.dropped() >= count + 3, "the packets are dropped")
        self.assertEqual([heard for heard in self.echo.received if heard[2] == b"stray"], [])

    def dropped(self):
        saved = self.lab.app.run("iptables-save", "-c", "-t", "mangle")
        return int(re.search(r"^\[(\d+):.*TANDOR_STRAY .*DROP", saved, re.M)[1])

    def test_nothing_strays_meanwhile(self):
        """Between another's rule and the move of ours a taken flow waits, whoever takes it where."""
        self.start("directlyWhiteList")
        flow, stream = self.listed.connect((OTHER, 53), "udp"), self.listed.connect(WEB)
        for taken in (flow, stream):
            self.assertEqual(taken.exchange([b"before"]), [b"before"])
        self.daemon.process.send_signal(signal.SIGSTOP)
        try:
            self.lab.app.ip(self.tunnel_up)
            self.assertNothingStrays(flow)
            stream.send(b"held")
            self.assertFalse(self.is_ahead())
        finally:
            self.daemon.process.send_signal(signal.SIGCONT)
        eventually(self.is_ahead, "ours is ahead")
        self.assertEqual(stream.recv(99), b"held")
        for taken in (flow, stream):
            self.assertEqual(taken.exchange([b"after"]), [b"after"])
            taken.close()


class RoutingRulesWithTracking(RoutingRules):
    wrapper = ("setpriv", "--bounding-set=-bpf,-perfmon,-sys_admin")
    scenarios = {"one by one": RoutingRules.scenarios["one by one"]}
