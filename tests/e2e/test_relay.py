"""What becomes of the bytes, and of flows whose ends come at awkward moments."""

import errno
import itertools
import signal
import socket
import threading
import time
import unittest

import clients
from daemon import PROXY
from lab import ETH0, OTHER, SERVER, VPN, EndToEnd
from namespaces import PATIENCE, SLOWNESS, end, eventually
from peers import ESTABLISHED, Echo, Listener, Refuser, bound, client_hello

WEB, QUIC = (SERVER, 80), (SERVER, 443)
#: Nobody answers there, not even with a refusal.
BLACK_HOLE = ("203.0.113.98", 80)
MEGABYTE = 1 << 20


class Bulk(EndToEnd):
    def test_bulk_both_ways(self):
        amount = 200 * MEGABYTE // SLOWNESS
        hello = client_hello("www.example.org")
        for mode, address, first in (("directlyWhiteList", WEB, b""), ("webProxy", PROXY, hello)):
            with self.subTest(mode):
                listener = self.closing(Listener(self.lab.net, address))
                self.start(mode)
                flow = self.listed.connect(QUIC if first else WEB)
                flow.begin("transfer", first, amount, amount)
                peer = self.closing(listener.accept())
                if first:
                    peer.read_head()
                    peer.send(ESTABLISHED)
                    self.assertEqual(peer.read(len(hello)), hello)
                sent, received = clients.transfer(peer.socket, amount, amount)
                self.assertEqual(self.listed.finish(), (received, sent))
                flow.close()
                traffic = self.daemon.status()["bytes"]
                self.assertGreaterEqual(min(traffic["in"], traffic["out"]), amount)


class Datagrams(EndToEnd):
    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, (OTHER, 53)))
        self.start("directlyWhiteList")

    def test_order_and_boundaries(self):
        sizes = [1, 2, 1471, 1472, 1473, 9000, 59999, 60000] + [7 * n % 1400 + 1 for n in range(400)]
        datagrams = [b"%06d" % number + bytes(size) for number, size in enumerate(sizes)]
        flow = self.listed.connect(WEB, "udp")
        self.assertEqual(flow.exchange(datagrams), datagrams)
        # A burst from the first on is one flow.
        for application, outcome in ((self.listed, "taken"), (self.unlisted, "left")):
            before = self.daemon.status()["flows"][outcome]
            del self.echo.received[:]
            application.connect((OTHER, 53), "udp").send_all(datagrams)
            eventually(lambda: len(self.echo.received) >= len(datagrams), "all come")
            self.assertEqual([data for _, _, data in self.echo.received], datagrams)
            self.assertEqual(self.daemon.status()["flows"][outcome] - before, 1)

    def test_empty_datagrams(self):
        """They are carried like others, in their places, from a flow's first datagram on."""
        server = self.closing(bound(self.lab.net, (SERVER, 5000), socket.SOCK_DGRAM))
        flow = self.listed.connect((SERVER, 5000), "udp")
        sent = [b"", b"", b"first", b"", bytes(30_000), b"", b"", b"second", b""]
        for pause in (0.05, 0):  # on their own, and several at once
            for datagram in sent:
                flow.send(datagram)
                time.sleep(pause)
            received, sources = zip(*(server.recvfrom(1 << 16) for _ in sent))
            self.assertEqual((list(received), len(set(sources))), (sent, 1))
            self.assertEqual(sources[0][0], ETH0)
            for datagram in sent:
                server.sendto(datagram, sources[0])
                time.sleep(pause)
            self.assertEqual([flow.recv(1 << 16) for _ in sent], sent)
        self.assertEqual(len(self.daemon.flows()), 1)

    def refusals(self, application, address):
        """What it learns, by error number, of datagrams to a destination that refuses them: three times
        with a connected socket, once with another, and once with one that asks for errors."""
        ip_recverr = 11  # Python has no name for it
        connected = application.connect(address, "udp")
        anywhere, asking = application.socket("udp", timeout=0.3), application.socket("udp")
        asking.setsockopt(socket.IPPROTO_IP, ip_recverr, 1)
        numbers = []
        for flow in (connected, connected, connected, anywhere, asking):
            with self.assertRaises(OSError) as error:
                flow.send(b"refuse me") if flow is connected else flow.sendto(b"refuse me", address)
                flow.recv(99)
            numbers.append(error.exception.errno)
        return connected, numbers

    def test_destinations_that_refuse(self):
        """The application learns of it as natively, at once and each time that it tries; and goes on
        when somebody is there."""
        address = (SERVER, 5001)
        rule = ("INPUT", "-p", "udp", "--dport", "5001", "-j", "REJECT", "--reject-with")
        self.lab.net.write("/proc/sys/net/ipv4/icmp_ratelimit", "0")
        taken = self.daemon.status()["flows"]["taken"]
        for reason, number in (("icmp-port-unreachable", errno.ECONNREFUSED),
                               ("icmp-proto-unreachable", errno.ENOPROTOOPT),
                               ("icmp-admin-prohibited", errno.EHOSTUNREACH)):
            self.lab.net.run("iptables", "-A", *rule, reason)
            connected = []
            for application in (self.listed, self.unlisted):
                with self.subTest(reason, application=application.name):
                    flow, numbers = self.refusals(application, address)
                    self.assertEqual(numbers, [number] * 3 + [None, number])
                    connected.append(flow)
            self.lab.net.run("iptables", "-D", *rule, reason)
            server = self.closing(bound(self.lab.net, address, socket.SOCK_DGRAM))
            for flow in connected:
                flow.send(b"at last")
                server.sendto(*server.recvfrom(99))
                self.assertEqual(flow.recv(99), b"at last")
            server.close()
        self.assertGreaterEqual(self.daemon.status()["flows"]["taken"] - taken, 3 * 6)

    def test_a_port_that_a_server_of_this_machine_has(self):
        """No socket can stand at the destination: the application is not left to wait."""
        with self.lab.app, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
            server.bind(("0.0.0.0", 5002))  # does not share it
            flow = self.listed.connect((SERVER, 5002), "udp")
            for _ in range(2):
                self.assertLess(flow.refusal_delay(), 1)

    def test_last_words(self):
        """Datagrams of sockets that are closed at once arrive, whoever carries them."""
        for application in (self.listed, self.unlisted):
            ports = application.call("send_once", WEB, application.name.encode(), 200)
            eventually(lambda: len([1 for _, _, data in self.echo.received
                                    if data == application.name.encode()]) == len(ports), "all come")
        self.daemon.await_no_flows()

    def test_many_sockets_that_go_at_once(self):
        """No flow outlives its socket, whether the daemon hears of each end or of too many."""
        def missed():
            self.unlisted.call("churn_datagrams", 5000)
            sockets = [line.split() for line in
                       self.lab.app.read("/proc/thread-self/net/netlink").splitlines()[1:]]
            sock_diag = "4"
            return any(protocol == sock_diag and int(drops) > 0
                       for _, protocol, *_, drops, _ in sockets)

        count = 1500 // SLOWNESS
        for are_too_many in (False, True):
            with self.subTest(are_too_many=are_too_many):
                self.assertEqual(self.listed.call("exchange_datagrams", WEB, count), count)
                kept = self.listed.connect((OTHER, 53), "udp")
                kept.exchange([b"before"])
                if are_too_many:
                    self.daemon.process.send_signal(signal.SIGSTOP)
                try:
                    self.listed.call("release_all")
                    if are_too_many:
                        eventually(missed, "the kernel has more to tell than is heard", 4 * PATIENCE)
                finally:  # a daemon that stands still would fail whatever follows
                    self.daemon.process.send_signal(signal.SIGCONT)
                eventually(lambda: len(self.daemon.flows()) == 1)
                kept.exchange([b"after"])
                self.assertEqual(self.echo.heard(b"before"), self.echo.heard(b"after"))
                kept.close()
                self.daemon.await_no_flows()

    def test_nothing_that_waits_is_lost_at_a_stop(self):
        self.unlisted.call("open_many", 5000)  # whose the sockets are takes a while
        for number in range(5):
            self.start("directlyWhiteList")
            word = b"waits %d" % number
            self.unlisted.begin("send_once", WEB, word, 200)
            self.echo.heard(word)
            self.daemon.call("stopProxy")
            self.unlisted.finish()
            eventually(lambda: len([1 for _, _, data in self.echo.received if data == word]) == 200,
                       "all come", 5 * SLOWNESS)
        self.unlisted.call("release_all")

    def test_same_ports_another_application(self):
        """What follows on a socket's ports inherits nothing from it."""
        for application, way in ((self.listed, "eth0"), (self.unlisted, "native")) * 10:
            self.assertWay(way, application, WEB, "tcp", bind=(VPN, 4000), reuse=True)
            self.assertWay(way, application, WEB, "udp", bind=(VPN, 4000))
            self.daemon.await_no_flows()  # what comes before the old flow has ended is still its own

    def test_sockets_that_talked_before_a_start_or_during_it(self):
        self.stop()
        before = self.listed.connect(WEB, "udp")
        before.exchange([b"before"])
        self.start("directlyWhiteList")
        during = self.listed.connect(WEB, "udp")
        for flow, word, is_native in ((before, b"goes on", True), (during, b"is new", False)):
            flow.exchange([word])
            self.assertEqual(self.echo.heard(word)[1] == flow.getsockname(), is_native, word)
        self.stop()
        during.exchange([b"on its own"])
        self.assertEqual(self.echo.heard(b"on its own")[1], during.getsockname())


class DatagramsByTracking(Datagrams):
    """Where the kernel does not take the daemon's programs."""

    wrapper = ("setpriv", "--bounding-set=-bpf,-perfmon,-sys_admin")
    #: It knows a flow by its addresses alone, until the daemon has heard that the socket is gone; which
    #: it does not hear when it is stopped by then, to the harm of the next tests.
    test_same_ports_another_application = None
    test_nothing_that_waits_is_lost_at_a_stop = None


class Mass(EndToEnd):
    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB))
        self.start("directlyWhiteList")

    @unittest.skipIf(SLOWNESS > 1, "a sanitizer has memory of its own")
    def test_idle_flows_hold_little(self):
        count = 800
        self.listed.call("connect_many", WEB, 20)
        self.listed.call("exchange_kept", bytes(3000))
        before = self.daemon.resident_bytes()
        self.listed.call("connect_many", WEB, count)
        self.assertEqual(self.listed.call("exchange_kept", bytes(3000)), count + 20)
        self.assertLess(self.daemon.resident_bytes() - before, count * 8192)
        self.listed.call("release_all")
        self.daemon.await_no_flows()

    def test_an_application_with_many_sockets_among_many_processes(self):
        self.listed.call("open_many", 5000)
        for _ in range(300):
            self.addCleanup(end, self.lab.app.popen("sleep", "60"))
        for application, way in ((self.listed, "eth0"), (self.unlisted, "native")) * 5:
            with self.assertPrompt(1):
                self.assertWay(way, application, WEB)
        self.listed.call("release_all")


class Answers(EndToEnd):
    def test_answers_of_a_server_that_resets(self):
        """Natively every byte that has arrived can be read before the reset is seen."""
        server = self.closing(Refuser(self.lab.net, WEB))
        self.start("directlyWhiteList")
        count = 200 // SLOWNESS
        for application, size, at_once in itertools.product(
                (self.unlisted, self.listed), (500, 30_000, 200_000), (1, 4, 16, 50)):
            with self.subTest(application=application.name, size=size, at_once=at_once):
                server.answer = bytes(size)
                outcomes = application.call("ask_many", WEB, count, at_once, bytes(40_000))
                self.assertEqual(outcomes, {(size, "ECONNRESET"): count})


class Departures(EndToEnd):
    """Flows that nobody reads yet: the proxy does not answer, or the destination."""

    @staticmethod
    def leave(application, flow, ending):
        if ending == "kill":
            application.process.kill()
        elif ending == "half-close":
            flow.shutdown(1)
        else:
            getattr(flow, ending)()

    def test_flows_whose_application_has_gone(self):
        hello = client_hello("www.example.org")
        self.closing(Listener(self.lab.net, PROXY))  # connects, and says nothing
        server = self.closing(Listener(self.lab.net, QUIC))
        self.start("webProxy")
        patient = self.listed.connect(QUIC)
        patient.sendall(hello)
        begin = time.monotonic()
        for mode, address in (("webProxy", QUIC), ("directlyWhiteList", BLACK_HOLE)):
            self.daemon.update(mode, [self.listed.program])
            flows = []
            for ending in ("close", "reset", "kill", "half-close"):
                application = self.closing(self.listed.twin())
                flow = application.connect(address)
                flow.sendall(hello)
                flows.append((application, flow, ending))
            eventually(lambda: len(self.daemon.flows()) == 5)
            for application, flow, ending in flows:
                self.leave(application, flow, ending)
            eventually(lambda: len(self.daemon.flows()) == 2, "those that have gone end", 8)
            time.sleep(4)
            self.assertEqual(len(self.daemon.flows()), 2)  # who has only finished sending waits
            flows[-1][0].process.kill()
            eventually(lambda: len(self.daemon.flows()) == 1, "so does the last", 8)
        # A proxy that never answers has refused the tunnel.
        peer = self.closing(server.accept())
        self.assertGreater(time.monotonic() - begin, 29)
        self.assertEqual(peer.read(len(hello)), hello)
        patient.close()
        self.daemon.await_no_flows()


class AwkwardEnds(EndToEnd):
    def setUp(self):
        super().setUp()
        self.server = self.closing(Listener(self.lab.net, WEB))
        self.start("directlyWhiteList")

    def flow(self):
        """A flow and the server's end of it, with the first bytes exchanged."""
        flow = self.listed.connect(WEB)
        flow.sendall(b"hello")
        peer = self.closing(self.server.accept())
        self.assertEqual(peer.read(5), b"hello")
        peer.send(b"welcome")
        self.assertEqual(flow.read(7), b"welcome")
        return flow, peer

    def fill(self, peer):
        """Sends until nothing more is taken; how much was."""
        sent = stalls = 0
        peer.socket.setblocking(False)
        while stalls < 3:
            try:
                sent += peer.socket.send(bytes(MEGABYTE))
                stalls = 0
            except BlockingIOError:
                stalls += 1
                time.sleep(0.01)
        peer.socket.settimeout(PATIENCE)
        return sent

    def test_before_the_outbound_connection_is_ready(self):
        """What the application had sent when it went arrives as soon as there is a way."""
        rule = ("INPUT", "-p", "tcp", "--dport", "80", "-j", "DROP")
        for ending in ("close", "half-close", "reset"):
            with self.subTest(ending):
                self.lab.net.run("iptables", "-A", *rule)
                flow = self.listed.connect(WEB)
                flow.sendall(b"last words" * 1000)
                flow.shutdown(1) if ending == "half-close" else getattr(flow, ending)()
                self.lab.net.run("iptables", "-D", *rule)
                if ending == "reset":
                    continue
                peer = self.closing(self.server.accept())
                self.assertEqual(peer.read(), b"last words" * 1000)
                if ending == "half-close":
                    self.assertEqual(flow.read(), b"")
                    flow.close()
        self.daemon.await_no_flows()

    def test_nobody_answers(self):
        flows = [self.listed.connect(BLACK_HOLE) for _ in range(3)]
        flows[0].close()
        flows[1].reset()
        eventually(lambda: len(self.daemon.flows()) == 3)
        self.stop()
        self.assertEqual(flows[2].read(), b"")

    def test_destination_refuses(self):
        with self.assertRaises(ConnectionResetError):
            flow = self.listed.connect((SERVER, 9))
            flow.sendall(b"hello")
            flow.read()

    def test_connections_that_are_given_up_at_once(self):
        for _ in range(100):
            self.listed.connect(WEB).close()
            flow = self.listed.socket(timeout=0)
            flow.connect_ex(WEB)
            flow.close()
        self.daemon.await_no_flows()

    def test_a_slow_reader_holds_the_sender_back(self):
        before = self.daemon.resident_bytes()
        flows = [self.flow() for _ in range(8)]
        for _, peer in flows:
            self.assertLess(self.fill(peer), 32 * MEGABYTE)
        # What a sanitizer keeps is more than the relay ever holds.
        self.assertLess(self.daemon.resident_bytes() - before, 8 * MEGABYTE * SLOWNESS)
        for flow, _ in flows:
            flow.close()
        self.daemon.await_no_flows()

    def test_the_application_ends_while_it_sends(self):
        """Everything that it has sent arrives, and its end is the end of the flow."""
        amount = 8 * MEGABYTE
        for ending in ("close", "half-close"):
            with self.subTest(ending):
                flow, peer = self.flow()
                flow.begin("sendall", bytes(amount))
                time.sleep(0.2)  # the server is slow
                self.assertEqual(len(peer.read(amount // 2)), amount // 2)
                self.listed.finish()
                flow.shutdown(1) if ending == "half-close" else flow.close()
                self.assertEqual(len(peer.read()), amount // 2)
                if ending == "half-close":
                    self.assertEqual(flow.read(), b"")
                    flow.close()
        for ending in ("reset", "close"):
            with self.subTest(ending + " behind what nobody reads"):
                flow, peer = self.flow()
                flow.setblocking(False)
                self.assertRaises(BlockingIOError, lambda: [flow.send(bytes(amount))
                                                            for _ in range(1000)])
                getattr(flow, ending)()
                peer.ending() if ending == "reset" else peer.reset()
        for ending in ("reset", "close with unread bytes"):
            with self.subTest(ending):
                flow, peer = self.flow()
                flow.sendall(b"not all of it")
                self.assertEqual(peer.read(13), b"not all of it")
                if ending != "reset":
                    peer.send(b"never read")
                    eventually(lambda: self.daemon.flows()[-1]["bytesIn"] >= 17)
                    time.sleep(0.05)
                flow.close() if ending != "reset" else flow.reset()
                self.assertEqual(peer.ending(), "reset")
        self.daemon.await_no_flows()

    def test_the_application_ends_while_it_receives(self):
        for ending in ("close", "reset", "kill"):
            with self.subTest(ending):
                flow, peer = self.flow()
                self.fill(peer)
                flow.read(1000)
                if ending == "kill":
                    end(self.listed.process)
                    type(self).listed = self.lab.application("listed")
                else:
                    getattr(flow, ending)()
                with self.assertRaises((ConnectionResetError, BrokenPipeError)):
                    while True:
                        peer.send(bytes(MEGABYTE))
                self.daemon.await_no_flows()

    def test_the_server_ends(self):
        """A clean end means that everything has come; a failure is seen as one."""
        amount = 8 * MEGABYTE
        with self.subTest("close"):
            flow, peer = self.flow()
            sender = threading.Thread(target=lambda: (peer.send(bytes(amount)), peer.close()))
            sender.start()
            time.sleep(0.2)  # the application is slow
            self.assertEqual(len(flow.read()), amount)
            sender.join()
            flow.close()
        with self.subTest("reset"):
            flow, peer = self.flow()
            peer.send(b"some bytes")
            self.assertEqual(flow.read(10), b"some bytes")
            peer.reset()
            self.assertRaises(ConnectionResetError, flow.read)
        for ending in ("reset", "close"):  # unread bytes make a close a reset
            with self.subTest(ending + " while the application sends"):
                flow, peer = self.flow()
                flow.begin("send_until_failure")
                peer.read(MEGABYTE)
                getattr(peer, ending)()
                error, _ = self.listed.finish()
                self.assertIn(type(error), (ConnectionResetError, BrokenPipeError))
        self.daemon.await_no_flows()
