"""Start, stop, sleep, wake, update and every kind of end, under load; what is missing, foreign or in
short supply."""

import errno
import itertools
import os
import random
import re
import signal
import socket
import subprocess
import threading
import time
import unittest

from daemon import PROVIDER, PROXY, Control, ControlError
from lab import ETH0, OTHER, SERVER, EndToEnd, with_descriptors
from namespaces import SLOWNESS, end, eventually
from peers import Echo, Listener, QueueOwner, bound, client_hello

WEB = (SERVER, 80)


class UnderLoad(EndToEnd):
    """Flows that come, go and stay while something happens to the provider."""

    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, (OTHER, 53)))
        self.server = self.closing(Listener(self.lab.net, (SERVER, 81)))

    def load(self):
        """Begins an upload without an end, a UDP flow, short flows of the listed application, and a
        left transfer that must not notice anything."""
        self.daemon.start("directlyWhiteList", [self.listed.program])
        self.datagrams = self.listed.connect((OTHER, 53), "udp")
        self.datagrams.exchange([b"taken"])
        self.left = self.unlisted.connect(WEB)
        self.left.exchange([b"left"])
        self.bystander = self.closing(self.unlisted.twin())
        self.bystander.begin("echo_bulk", WEB, (64 << 20) // SLOWNESS)
        self.uploader = self.closing(self.listed.twin())
        upload = self.uploader.connect((SERVER, 81))
        upload.begin("send_until_failure")
        self.upload_peer = self.closing(self.server.accept())
        self.upload_peer.read(1 << 20)
        self.short = 1500 // SLOWNESS
        self.shorts = self.closing(self.listed.twin())
        taken = self.daemon.status()["flows"]["taken"]
        self.shorts.begin("exchange_many", WEB, self.short, 30, b"short")
        eventually(lambda: self.daemon.status()["flows"]["taken"] > taken + self.short // 10, "load")

    def finish_load(self, failures=60):
        """What was left never failed, and of the short flows only those of the moment."""
        outcomes = self.shorts.finish()
        self.assertEqual(sum(outcomes.values()), self.short)
        self.assertLessEqual(set(outcomes), {"whole", "short", "ECONNRESET", "EPIPE"}, outcomes)
        self.assertGreaterEqual(outcomes["whole"], self.short - failures, outcomes)
        self.assertIsInstance(self.uploader.finish()[0], ConnectionError)
        self.assertTrue(self.bystander.finish())
        self.assertEqual(self.left.exchange([b"still here"]), [b"still here"])
        self.left.close()

    def assertNative(self):
        """New flows go their native way at once, those on old sockets, too."""
        with self.assertPrompt(0.9):  # before anything is sent again
            for kind in ("tcp", "udp"):
                self.assertWay("native", self.listed, WEB, kind)

    def assertDatagramsNative(self):
        """The UDP socket of a flow that was taken goes on by itself."""
        self.assertEqual(self.datagrams.exchange([b"native now"]), [b"native now"])
        self.assertEqual(self.echo.heard(b"native now")[1], self.datagrams.getsockname())
        self.datagrams.close()

    def test_stop_and_sleep(self):
        for is_stop in (True, False):
            with self.subTest(is_stop=is_stop):
                self.load()
                # What the application has sent is still delivered.
                threading.Thread(target=self.upload_peer.ending).start()
                self.stop() if is_stop else self.daemon.call("sleep")
                self.assertNative()
                self.assertDatagramsNative()
                self.finish_load()
        self.assertEqual(self.daemon.status()["state"], "asleep")
        self.daemon.await_no_flows()
        self.daemon.call("wake")
        self.assertWay("eth0", self.listed, WEB)

    def test_update_disturbs_nobody(self):
        self.load()
        for mode in ("tunnelWhiteList", "directlyWhiteList") * 5:
            self.daemon.update(mode, [self.listed.program])
        self.daemon.update("directlyWhiteList", [])
        self.assertNative()
        self.upload_peer.read(8 << 20)
        self.datagrams.exchange([b"goes on"])
        self.assertNotEqual(self.echo.heard(b"goes on")[1], self.datagrams.getsockname())
        self.upload_peer.reset()
        self.finish_load(failures=0)

    def test_everything_at_once(self):
        """Whatever happens to the provider: bytes are right as far as they come, every flow ends, and
        nothing is left."""
        self.closing(Echo(self.lab.net, PROXY))
        self.daemon.start("webProxy", [self.listed.program])
        firsts = (client_hello("web.example"), b"GET / HTTP/1.1\r\n\r\n", b"SSH-2.0", bytes(40_000))
        workers = [self.closing(self.listed.twin()) for _ in range(5)]
        for worker, first in zip(workers, firsts):
            worker.begin("exchange_many", WEB, 1200 // SLOWNESS, 10, first, 8)
        workers[-1].begin("send_once", (OTHER, 53), b"hello", 2000 // SLOWNESS)
        route = "route %s default via 192.0.2.1 dev eth0 metric 100"
        changes = (lambda: self.daemon.call("sleep"), lambda: self.daemon.call("wake"),
                   lambda: self.daemon.update("directlyWhiteList", [self.listed.program]),
                   lambda: self.daemon.update("webProxy", [self.listed.program]),
                   lambda: self.daemon.update("webProxy", [], enable="false"),
                   lambda: self.lab.app.ip(route % "del" + "\n" + route % "add"),
                   lambda: self.start("webProxy"))
        chance = random.Random(99)
        end = time.monotonic() + 4
        while time.monotonic() < end:
            chance.choice(changes)()
            time.sleep(0.02)
        for worker in workers[:-1]:
            outcomes = worker.finish()
            self.assertLessEqual(set(outcomes), {"whole", "reset", "short", "ECONNRESET", "EPIPE"},
                                 outcomes)
            self.assertGreater(outcomes["whole"], 20)
        workers[-1].finish()
        self.daemon.await_no_flows()

    def test_signals(self):
        for number, reason in ((signal.SIGTERM, "(5)"), (signal.SIGINT, "(1)")):
            with self.subTest(reason):
                self.load()
                self.assertEqual(self.daemon.terminate(number), 0)
                self.assertEqual(self.lab.traces(), [])
                self.assertFalse(os.path.exists(self.daemon.path))
                self.assertNative()
                self.assertDatagramsNative()
                self.finish_load()
                self.assertIn(reason, self.daemon.log().partition("stop proxy with reason:")[2])
                type(self).daemon = self.lab.daemon()

    def test_signals_that_come_again(self):
        """While the last bytes are on their way to an application that does not read them."""
        term, interrupt, hangup, leave = signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT
        for numbers, reason in (((term, term), "(5)"), ((interrupt,) * 3, "(1)"),
                                ((hangup, term), "(5)"), ((leave, interrupt, leave), "(1)")):
            with self.subTest(numbers):
                daemon = self.lab.daemon(wrapper=("setsid",))
                daemon.start("directlyWhiteList", [self.listed.program])
                flow = self.listed.connect((SERVER, 81))
                flow.sendall(b"x")
                self.closing(self.server.accept()).send(bytes(1 << 20))
                for number in numbers:
                    os.killpg(daemon.process.pid, number)  # as a terminal does
                    time.sleep(0.2)
                # What it runs to remove things is told, too.
                while daemon.process.poll() is None:
                    os.killpg(daemon.process.pid, numbers[-1])
                    time.sleep(0.001)
                self.assertEqual(daemon.process.wait(), 0)
                self.assertEqual(self.lab.traces(), [])
                self.assertFalse(os.path.exists(daemon.path))
                self.assertIn(reason, daemon.log().partition("stop proxy with reason:")[2])
                self.assertNative()
                flow.close()

    def test_signals_before_and_beside(self):
        """One that comes early is not lost, and leaves no socket; some are not for us."""
        path = self.lab.folder + "/early"
        for attempt in range(60 // SLOWNESS):
            early = self.lab.app.popen(PROVIDER, "--control", path, stderr=subprocess.DEVNULL)
            self.addCleanup(end, early)
            deadline = time.monotonic() + 0.001 * attempt
            while not os.path.exists(path) and time.monotonic() < deadline:
                pass
            early.terminate()
            self.assertIn(early.wait(20), (0, -signal.SIGTERM))
            self.assertFalse(os.path.exists(path))
        daemon = self.lab.daemon(wrapper=("nohup",))
        for number in (signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGPIPE):
            daemon.process.send_signal(number)
        self.assertEqual(daemon.status()["state"], "idle")
        self.assertEqual(daemon.terminate(), 0)

    def kill(self):
        """Kills the daemon under load: everything is native at once, whatever remains of it."""
        self.load()
        download = self.listed.connect((SERVER, 81))
        download.sendall(b"x")
        peer = self.closing(self.server.accept())
        peer.send(b"half of it")
        self.assertEqual(download.read(10), b"half of it")
        self.daemon.kill()
        self.assertNative()
        # Nobody is told that this was everything.
        self.assertRaises(ConnectionResetError, download.read)
        self.assertEqual(self.upload_peer.ending(), "reset")
        self.finish_load()

    def test_killed_then_cleaned_up(self):
        self.kill()
        self.lab.app.run(PROVIDER, "--cleanup")
        self.assertEqual(self.lab.traces(), [])
        self.assertDatagramsNative()

    def test_killed_then_started(self):
        self.kill()
        type(self).daemon = self.lab.daemon()
        self.daemon.start("directlyWhiteList", [self.listed.program])
        self.assertWay("eth0", self.listed, WEB)
        self.stop()
        self.assertDatagramsNative()


class Surroundings(EndToEnd):
    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB))

    def test_interfaces_that_come_and_go(self):
        eth0, eth1 = ("route %s default via 192.0.2.1 dev eth0 metric 100",
                      "route %s default via 192.0.2.65 dev eth1 metric 200")
        both = "route %s default nexthop via 10.8.0.1 dev vpn0 nexthop via 192.0.2.65 dev eth1"
        changes = [(self.lab.app, "link set eth0 down", "eth1"),
                   (self.lab.app, "link set eth0 up\n" + eth0 % "add", "eth0"),
                   (self.lab.net, "link set eth0 down", "eth1"),  # the cable is pulled
                   (self.lab.app, "link set eth1 down", None),
                   (self.lab.net, "link set eth0 up", "eth0"),
                   (self.lab.app, "link set eth1 up\n" + eth1 % "add", "eth0"),
                   # The better route decides; one of another table counts when there is no other.
                   (self.lab.app, "route add default via 192.0.2.65 dev eth1 metric 90", "eth1"),
                   (self.lab.app, "route del default via 192.0.2.65 dev eth1 metric 90", "eth0"),
                   (self.lab.app, eth0 % "del" + "\n" + eth1 % "del", None),
                   (self.lab.app, "route add default via 192.0.2.65 dev eth1 metric 50 table 77",
                    "eth1"),
                   (self.lab.app, eth0 % "add", "eth0"),
                   (self.lab.app, both % "add", "eth1"),
                   (self.lab.app, f"{both % 'del'}\nroute flush table 77\n{eth1 % 'add'}", "eth0")]
        self.start("directlyWhiteList")
        flow = self.listed.connect(WEB)  # it keeps its interface, whatever others are given
        flow.exchange([b"before"])
        for namespace, change, interface in changes:
            with self.subTest(change):
                namespace.ip(change)
                eventually(lambda: self.daemon.status()["directInterface"] == interface, change,
                           5 * SLOWNESS)
                # Without a physical interface, direct flows go wherever the routes say.
                for kind in ("tcp", "udp"):
                    self.assertWay(interface or "vpn0", self.listed, WEB, kind)
        flow.exchange([b"after"])
        self.assertEqual(self.echo.heard(b"before"), self.echo.heard(b"after"))
        flow.close()

    def test_interfaces_over_others(self):
        """Count as what lies below them; a bridge as its ports but those of containers."""
        via = "route add default via 192.0.2.65 dev eth2 metric 20"
        address = "address add 192.0.2.66/26 dev eth2\nlink set eth2 up\n"
        over = "link add link eth1 name {} type macvlan mode private\n".format
        bare = "address flush dev eth1\n"
        bridge = bare + "link add eth2 type bridge\n"
        kinds = (
            ("macvlan", bare + over("eth2") + address + via, "eth2"),
            ("two layers", bare + over("eth3") + "link set eth3 up\n" + over("eth2").replace(
                "link eth1", "link eth3") + address + via, "eth2"),
            ("a bridge over an interface",
             bridge + over("eth3") + "link set eth3 up master eth2\n" + address + via, "eth2"),
            ("a bridge of containers", bridge + "link set eth1 master eth2\n" + address + via,
             "eth0"),
            ("the object of a next hop", bare + over("eth2") + address +
             "nexthop add id 5 via 192.0.2.65 dev eth2\nroute add default nhid 5 metric 20", "eth2"),
            ("a group of them", bare + over("eth2") + address +
             "nexthop add id 5 via 192.0.2.65 dev eth2\nnexthop add id 6 group 5\n"
             "route add default nhid 6 metric 20", "eth2"))
        compatible = "/proc/sys/net/ipv4/nexthop_compat_mode"
        self.lab.app.write(compatible, "0")  # otherwise routes name the interface, too
        self.addCleanup(self.lab.app.write, compatible, "1")
        self.start("directlyWhiteList")
        for name, change, interface in kinds:
            with self.subTest(name):
                try:
                    self.lab.app.ip(change)
                    if interface == "eth0":
                        time.sleep(0.5)  # nothing is to happen
                    eventually(lambda: self.daemon.status()["directInterface"] == interface, name, 5)
                    for kind in ("tcp", "udp"):
                        self.assertWay("eth1" if interface == "eth2" else "eth0", self.listed, WEB, kind)
                finally:
                    self.lab.app.run("sh", "-c", "ip link del eth2; ip link del eth3; ip nexthop flush;"
                                     "ip address add 192.0.2.66/26 dev eth1;"
                                     "ip route add default via 192.0.2.65 dev eth1 metric 200")
                eventually(lambda: self.daemon.status()["directInterface"] == "eth0", name, 5)

    def test_no_room_for_more(self):
        self.daemon.end()
        type(self).daemon = self.lab.daemon(wrapper=with_descriptors(400))
        self.start("directlyWhiteList")
        room, count = (400 - 256) // 2, 200
        self.listed.call("connect_many", WEB, count)
        self.assertEqual(self.listed.call("exchange_kept", b"hello"), count)
        native = sum(source[0] != ETH0 for _, source, _ in self.echo.received)
        self.assertEqual(native, count - room)
        begin = self.daemon.cpu_seconds()
        time.sleep(1)
        self.assertLess(self.daemon.cpu_seconds() - begin, 0.1)
        self.assertEqual(self.daemon.log().count("no room for more"), 1)
        self.listed.call("release_all")
        self.daemon.await_no_flows()
        # However flows end, they leave nothing that takes the room of others.
        self.listed.call("exchange_many", WEB, 2 * count, 8, b"hello", 2)
        self.daemon.await_no_flows()
        self.listed.call("connect_many", WEB, room)
        self.assertEqual(self.listed.call("exchange_kept", b"again"), room)
        self.assertEqual([source for _, source, data in self.echo.received
                          if data == b"again" and source[0] != ETH0], [])
        self.listed.call("release_all")
        self.stop()
        self.daemon.end()

    @unittest.skipIf(SLOWNESS > 1, "a sanitizer needs descriptors of its own")
    def test_a_moment_without_descriptors(self):
        """What cannot be looked at has not gone."""
        daemon = self.lab.daemon(wrapper=with_descriptors(300))
        daemon.start("directlyWhiteList", [self.listed.program])
        clients = []
        while daemon.descriptors() < 300:
            clients.append(self.closing(Control(daemon.path)))
        self.lab.app.ip("route add default via 192.0.2.65 dev eth1 metric 90")
        try:
            time.sleep(0.5)
            self.assertEqual(daemon.status()["directInterface"], "eth0")
            for client in clients:
                client.close()
            eventually(lambda: daemon.status()["directInterface"] == "eth1",
                       patience=5 * SLOWNESS)
        finally:
            self.lab.app.ip("route del default via 192.0.2.65 dev eth1 metric 90")
        daemon.terminate()

    def test_starts_that_fail(self):
        without = ("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /usr/sbin; exec "$0" "$@"')
        cases = (((), "queue 77 has an owner already"),
                 (without, "iptables-save is not installed; install the package iptables"),
                 (("setpriv", "--bounding-set", "-net_admin"),
                  "tandor-provider needs root or CAP_NET_ADMIN"))
        for wrapper, words in cases:
            with self.subTest(words):
                daemon = self.lab.daemon(wrapper=wrapper)
                descriptors = daemon.descriptors()
                if not wrapper:
                    taken = self.closing(QueueOwner(self.lab.app))
                for attempt in range(2):
                    with self.assertRaisesRegex(ControlError, words):
                        daemon.start("directlyWhiteList", [self.listed.program])
                    self.assertEqual(daemon.status()["state"], "failed")
                if not wrapper:
                    taken.close()
                self.assertEqual(self.lab.traces(), [])
                self.assertLessEqual(daemon.descriptors(), descriptors + 2)  # the path monitor's
                self.assertWay("native", self.listed, WEB)
                if not wrapper:
                    daemon.start("directlyWhiteList", [self.listed.program])
                    self.assertWay("eth0", self.listed, WEB)
                daemon.terminate()

    def test_nobody_gets_or_hinders_what_is_for_the_listener(self):
        self.start("directlyWhiteList")
        ports = self.lab.listeners()
        self.assertEqual({kind for kind, _ in ports}, {"tcp", "udp"})
        kinds = {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}
        sharing = ((), (socket.SO_REUSEADDR,), (socket.SO_REUSEPORT,),
                   (socket.SO_REUSEADDR, socket.SO_REUSEPORT))
        for (kind, port), address, options in itertools.product(
                set(ports), ("127.0.0.1", "0.0.0.0"), sharing):
            with self.subTest(kind=kind, address=address, options=options), self.lab.app, \
                    socket.socket(socket.AF_INET, kinds[kind]) as stranger:
                os.fchown(stranger.fileno(), 65534, -1)  # the kernel compares the owners
                for option in options:
                    stranger.setsockopt(socket.SOL_SOCKET, option, 1)
                with self.assertRaises(OSError) as refusal:
                    stranger.bind((address, port))
                self.assertEqual(refusal.exception.errno, errno.EADDRINUSE)
        # Where taken flows go to, servers of the machine have their ports as ever.
        for kind in kinds:
            flow = self.listed.connect(WEB, kind)
            flow.exchange([b"to a port"])
            bound(self.lab.app, ("0.0.0.0", WEB[1]), kinds[kind]).close()
            flow.exchange([b"that somebody else had"])
        # Whoever sends there takes no room from first datagrams.
        port = dict(ports)["udp"]
        with self.lab.app, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            self.daemon.process.send_signal(signal.SIGSTOP)
            for number in range(100):
                stranger.sendto(b"x", ("127.0.0.1", port))
        table = [line.split() for line in
                 self.lab.app.read("/proc/thread-self/net/udp").splitlines()]
        self.daemon.process.send_signal(signal.SIGCONT)
        self.assertEqual({queues for _, local, _, _, queues, *_ in table
                          if local == f"0100007F:{port:04X}"}, {"00000000:00000000"})

    def test_two_daemons(self):
        self.start("directlyWhiteList")
        flow = self.listed.connect(WEB, "udp")
        flow.exchange([b"first"])
        traces = self.lab.traces()
        second = self.lab.daemon()
        for attempt in range(2):
            with self.assertRaisesRegex(ControlError, "queue 77 has an owner already"):
                second.start("directlyWhiteList", [self.listed.program])
        second.terminate()
        cleaner = self.lab.app.run(PROVIDER, "--cleanup", check=False)
        self.assertEqual(cleaner.returncode, 1)
        self.assertIn("nothing is removed", cleaner.stderr)
        self.assertEqual([re.sub(r"\d+", "", trace) for trace in self.lab.traces()],
                         [re.sub(r"\d+", "", trace) for trace in traces])
        flow.exchange([b"second"])
        self.assertEqual(self.echo.heard(b"first"), self.echo.heard(b"second"))
        for _ in range(20):
            self.assertWay("eth0", self.listed, WEB)

    def test_foreign_rules_and_marks(self):
        """Other software's rules, its bits of the marks and its routing by them stay as they are."""
        foreign = """*mangle
:FOREIGN - [0:0]
-A OUTPUT -j FOREIGN
-A FOREIGN -m owner --uid-owner 0 -j MARK --set-xmark 0x80000085/0x800000ff
-A FOREIGN -j CONNMARK --set-xmark 0x4600/0xff00
-A POSTROUTING -m mark --mark 0x80000085/0x800000ff -m connmark --mark 0x4600/0xff00
COMMIT
*filter
-A OUTPUT -d 192.0.2.255/32 -j DROP
COMMIT
*nat
-A OUTPUT -d 203.0.113.77/32 -p tcp -j DNAT --to-destination 203.0.113.10
COMMIT
"""
        self.lab.app.run("iptables-restore", "--noflush", input=foreign)
        self.lab.app.ip("rule add pref 7000 fwmark 0x85/0xff lookup 52\n"
                        "route add default via 192.0.2.65 dev eth1 table 52")

        def rules():
            return (re.sub(r"\[\d+:\d+\]|^#.*$", "", self.lab.app.run("iptables-save"), flags=re.M),
                    self.lab.app.run("ip", "rule"))

        def counted():
            saved = self.lab.app.run("iptables-save", "-c", "-t", "mangle")
            return int(re.search(r"^\[(\d+):.*POSTROUTING -m mark", saved, re.M)[1])

        try:
            before = rules()
            self.start("directlyWhiteList")
            for application, way in ((self.listed, "eth0"), (self.unlisted, "native")):
                for kind in ("tcp", "udp"):
                    with self.subTest(app=application.name, kind=kind):
                        packets = counted()
                        self.assertWay(way, application, WEB, kind)
                        self.assertGreater(counted(), packets)
            flow, taken = self.unlisted.connect(WEB), self.listed.connect(WEB)
            for connected in (flow, taken):
                port = f" sport={connected.getsockname()[1]} "
                self.assertEqual({mark & 0xFF00 for line, mark in self.lab.tracked()
                                  if port in line}, {0x4600})
            self.stop()
            self.assertEqual(rules(), before)
            self.assertEqual(flow.exchange([b"goes on"]), [b"goes on"])
        finally:
            self.lab.app.run("sh", "-c", "iptables -t mangle -F; iptables -t mangle -X;"
                             "iptables -F; iptables -t nat -F")
            self.lab.app.ip("rule del pref 7000\nroute flush table 52")
