"""Which flows are taken, and the way that each goes."""

import itertools
import socket
import time

from daemon import PROXY
from lab import ETH0, NOWHERE, OTHER, PRIVATE, SERVER, SERVER6, VPN, EndToEnd
from namespaces import SLOWNESS, eventually
from peers import ESTABLISHED, Echo, Listener, client_hello, connect_request

MODES = ("webProxy", "directlyWhiteList", "tunnelWhiteList")
WEB, QUIC = (SERVER, 80), (SERVER, 443)


class Modes(EndToEnd):
    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, QUIC, (OTHER, 53), (PRIVATE, 80),
                                      (SERVER6, 80), PROXY))

    def test_ways_of_the_modes(self):
        ways = {("webProxy", "listed", "tcp"): "proxy",
                ("directlyWhiteList", "listed", "tcp"): "eth0",
                ("directlyWhiteList", "listed", "udp"): "eth0",
                ("tunnelWhiteList", "unlisted", "tcp"): "eth0",
                ("tunnelWhiteList", "unlisted", "udp"): "eth0"}
        self.start("directlyWhiteList")
        changes = (lambda mode: self.daemon.update(mode, [self.listed.program]), self.start)
        for change, mode in itertools.product(changes, MODES):
            change(mode)
            for application, kind in itertools.product((self.listed, self.unlisted), ("tcp", "udp")):
                with self.subTest(mode=mode, kind=kind, app=application.name):
                    way = ways.get((mode, application.name, kind), "native")
                    self.assertWay(way, application, WEB if kind == "tcp" else (OTHER, 53), kind)

    def test_flows_that_are_nobodys_business(self):
        """Private and IPv6 destinations, the machine itself, and sockets bound to a device."""
        here = self.closing(Echo(self.lab.app, (ETH0, 81)))
        taken = self.daemon.status()["flows"]["taken"]
        for mode in MODES:
            self.start(mode)
            for application, kind in itertools.product((self.listed, self.unlisted), ("tcp", "udp")):
                with self.subTest(mode=mode, app=application.name, kind=kind):
                    self.assertWay("native", application, (PRIVATE, 80), kind)
                    self.assertWay("native", application, (SERVER6, 80), kind, family="AF_INET6")
                    self.assertWay("native", application, WEB, kind, device="vpn0")
                    self.assertWay("native", application, WEB, kind, device="eth1")
                    flow = application.connect((ETH0, 81), kind)
                    flow.send(b"hello")
                    self.assertEqual(flow.recv(99), b"hello")
                    self.assertEqual(here.received[-1][1], flow.getsockname())
                    flow.close()
            self.assertEqual(self.daemon.status()["flows"]["taken"], taken)

    def test_ipv4_in_ipv6_sockets_is_ipv4(self):
        self.start("directlyWhiteList")
        mapped = ("::ffff:" + SERVER, 80)
        for kind in ("tcp", "udp"):
            with self.subTest(kind=kind):
                self.assertWay("eth0", self.listed, mapped, kind, family="AF_INET6")

    def test_a_vpn_takes_the_rest(self):
        """However a VPN draws the traffic, direct flows leave by the physical interface."""
        vpns = (("", ""),  # by a better route
                ("route add 0.0.0.0/1 dev vpn0 via 10.8.0.1\nroute add 128.0.0.0/1 dev vpn0 via 10.8.0.1",
                 "route del 0.0.0.0/1\nroute del 128.0.0.0/1"),
                ("route add default via 10.8.0.1 dev vpn0 table 51\nrule add pref 50 lookup 51",
                 "rule del pref 50\nroute flush table 51"))
        self.start("directlyWhiteList")
        for begin, finish in vpns:
            with self.subTest(vpn=begin):
                self.lab.app.ip(begin)
                try:
                    for application, way, link in ((self.listed, "eth0", "eth0"),
                                                   (self.unlisted, "native", "vpn0")):
                        before = self.lab.net.received(link)
                        for _ in range(20):
                            self.assertWay(way, application, WEB)
                        self.assertGreaterEqual(self.lab.net.received(link) - before, 20 * 4)
                finally:
                    self.lab.app.ip(finish)

    def test_quic_is_refused_at_once(self):
        self.start("webProxy")
        refused = self.daemon.status()["flows"]["refused"]
        for attempt in range(3):  # no answer to the first is inherited by the next
            flow = self.listed.connect(QUIC, "udp")
            for datagram in range(2):
                with self.subTest(attempt=attempt, datagram=datagram):
                    self.assertLess(flow.refusal_delay(), 0.1 * SLOWNESS)
            flow.close()
        self.assertEqual(self.daemon.status()["flows"]["refused"], refused + 6)
        self.assertWay("native", self.unlisted, QUIC, "udp")
        self.daemon.update("directlyWhiteList", [self.listed.program])
        self.assertWay("eth0", self.listed, QUIC, "udp")


class Outbound(EndToEnd):
    """Ports and addresses of the daemon's own connections."""

    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB, QUIC, (OTHER, 53), PROXY))

    def port_range(self, text):
        file = "/proc/sys/net/ipv4/ip_local_port_range"
        self.addCleanup(self.lab.app.write, file, self.lab.app.read(file))
        self.lab.app.write(file, text)

    def test_applications_and_relay_share_no_port(self):
        """Without a VPN both sides of a flow talk from the same address to the same server."""
        without_vpn, flows = "via 192.0.2.1 dev eth0 metric 9", 80
        self.lab.app.ip("route add default " + without_vpn)
        self.port_range("40000 40399")
        try:
            self.start("directlyWhiteList")
            self.listed.call("connect_many", WEB, flows)
            self.assertEqual(self.listed.call("exchange_kept", b"hello"), flows)
            self.assertEqual(len(self.daemon.flows()), flows)
        finally:
            self.listed.call("release_all")
            self.lab.app.ip("route del default " + without_vpn)

    def test_most_ports_are_left_to_applications(self):
        """However many flows there were in the last minute, to one server or to several; and who asks
        for a port that the daemon has gets it, if it only says that it would share it."""
        self.port_range("40000 41599")
        type(self).daemon.end()
        type(self).daemon = self.lab.daemon()
        self.daemon.start("directlyWhiteList", [self.listed.program])
        for address in (WEB, QUIC):
            outcome = self.listed.call("exchange_many", address, 300, 4, b"hello")
            self.assertEqual(outcome, {"whole": 300})
        ours = {port for _, (host, port), _ in self.echo.received if host == ETH0}
        self.assertLessEqual(len(ours), 1600 / 16)
        with self.lab.app:
            server = self.closing(socket.create_server(("", ours.pop())))
        self.assertTrue(server)
        # With as many open at once to one server, each has its own.
        self.listed.call("connect_many", WEB, 300)
        try:
            self.assertEqual(self.listed.call("exchange_kept", b"hi"), 300)
        finally:
            self.listed.call("release_all")

    def test_an_address_that_goes_takes_its_flows_along(self):
        """At once: who would otherwise stand still without an end can begin anew."""
        listener = self.closing(Listener(self.lab.net, (OTHER, 99)))
        address = f"address add {ETH0}/26 dev eth0\n"
        route = "route replace default via 192.0.2.1 dev eth0 metric 100"
        self.start("directlyWhiteList")
        for change, restore, is_lost in (
                # Renewed, while another interface goes for good.
                (f"link add eth2 type veth\naddress del {ETH0}/26 dev eth0\n{address}{route}\n"
                 "link del eth2", "", False),
                (f"address add 192.0.2.3/32 dev eth0\naddress del {ETH0}/26 dev eth0\n"
                 f"{route} src 192.0.2.3 onlink", f"address del 192.0.2.3/32 dev eth0\n{address}{route}",
                 True)):
            with self.subTest(is_lost=is_lost):
                stream = self.listed.connect((OTHER, 99))
                stream.send(b"hello")
                peer = self.closing(listener.accept())
                self.assertEqual(peer.source[0], ETH0)
                datagrams = self.listed.connect((OTHER, 53), "udp")
                self.assertEqual(datagrams.exchange([b"hello"]), [b"hello"])
                begin = time.monotonic()
                self.lab.app.ip(change)
                try:
                    if is_lost:
                        self.assertRaises(ConnectionResetError, stream.recv, 1)
                        self.assertEqual(peer.ending(), "reset")
                        self.assertLess(time.monotonic() - begin, 1)
                        eventually(lambda: not self.daemon.flows(), "the flows have ended")
                    else:
                        time.sleep(0.5)
                        peer.send(b"still here")
                        self.assertEqual(stream.read(10), b"still here")
                    self.assertEqual(datagrams.exchange([b"again"]), [b"again"])
                finally:
                    self.lab.app.ip(restore)
                stream.close()
                datagrams.close()

    def test_an_interface_that_goes_takes_its_connections_along(self):
        self.lab.net.ip(f"""link add eth2 type veth peer name eth2 netns {self.lab.app.name}
            address add 192.0.2.129/26 dev eth2
            link set eth2 up""")
        self.lab.app.ip("""address add 192.0.2.130/26 dev eth2
            link set eth2 up
            route add default via 192.0.2.129 dev eth2 metric 10""")
        self.lab.app.write("/proc/sys/net/ipv4/conf/eth2/rp_filter", "2")
        listener = self.closing(Listener(self.lab.net, (OTHER, 99)))
        self.start("directlyWhiteList")
        stream = self.listed.connect((OTHER, 99))
        stream.send(b"hello")
        peer = self.closing(listener.accept())
        self.assertEqual(peer.source[0], "192.0.2.130")
        # The address alone does not make it: it may be another interface's by now.
        self.lab.app.ip("""link del eth2
            address add 192.0.2.130/32 dev eth0""")
        self.addCleanup(self.lab.app.ip, "address del 192.0.2.130/32 dev eth0")
        begin = time.monotonic()
        self.assertRaises(ConnectionResetError, stream.recv, 1)
        self.assertLess(time.monotonic() - begin, 1)
        self.assertWay("eth0", self.listed, WEB)


class Proxying(EndToEnd):
    """Through an HTTP proxy whose every word is ours."""

    def setUp(self):
        super().setUp()
        self.proxy = self.closing(Listener(self.lab.net, PROXY))
        self.server = self.closing(Listener(self.lab.net, QUIC))
        self.start("webProxy", connectReply="phrase")

    def asked(self, flow, hello):
        """The proxy's end of a flow that has sent its hello and asks for a tunnel."""
        flow.sendall(hello)
        peer = self.closing(self.proxy.accept())
        self.assertEqual(peer.read_head(), connect_request("www.example.org", 443))
        return peer

    def assertWorks(self, flow, peer):
        peer.send(b"server's turn")
        self.assertEqual(flow.read(13), b"server's turn")
        flow.sendall(b"application's turn")
        self.assertEqual(peer.read(18), b"application's turn")

    def assertDirect(self, flow, first):
        """The flow has reached its destination by itself, first bytes first, and works."""
        peer = self.closing(self.server.accept())
        self.assertEqual(peer.source[0], VPN)  # a fallback is not bound to an interface
        self.assertNotEqual(peer.source, flow.getsockname())
        self.assertEqual(peer.read(len(first)), first)
        self.assertWorks(flow, peer)

    def test_connect_request_and_tunnel(self):
        for name, port, piece in (("www.example.org", 443, 1), ("x.example", 8443, 100),
                                  ("a" * 250, 1, 1000), ("GNOME.org", 443, 1000)):
            with self.subTest(name=name, port=port):
                flow = self.listed.connect((SERVER, port))
                flow.setsockopt(6, 1, 1)  # TCP_NODELAY
                hello = client_hello(name)
                flow.send_all([hello[start:start + piece] for start in range(0, len(hello), piece)])
                peer = self.closing(self.proxy.accept())
                self.assertEqual(peer.read_head(), connect_request(name, port))
                peer.socket.setblocking(False)
                self.assertRaises(BlockingIOError, peer.socket.recv, 1)  # nothing behind the head
                peer.socket.setblocking(True)
                peer.send(ESTABLISHED)
                self.assertEqual(peer.read(len(hello)), hello)
                self.assertWorks(flow, peer)
                peer.close()
                self.assertEqual(flow.read(), b"")
                flow.close()

    def assertReason(self, reason):
        """Why the last flow went directly."""
        reasons = self.daemon.log().split("change connection to direct mode, reason: ")
        self.assertTrue(reasons[-1].startswith(reason), reasons[-1])

    def test_anything_else_goes_direct(self):
        hello = client_hello("www.example.org")
        neither = "parse sni info failed, request neither https nor http"
        cases = [(first, neither) for first in (
            client_hello("a\r\nX-Evil: 1"), client_hello("a b"), client_hello("a/\x1b[2J"),
            b"SSH-2.0-OpenSSH_9.2\r\n", b"\x00\xff" * 100, b"GET / HTTP/1.0\r\n\r\n", hello[:5],
            b"GET / http/1.1\r\n\r\n", hello[:-1], b"GET / HTTP/1.1\r\nX: \xff\r\n\r\n")]
        cases += [(client_hello(name), "white list host name:" + name)
                  for name in ("accounts.tandor.cloud", "www.gnome.org.example")]
        for first, reason in cases:
            with self.subTest(first=first[:20]):
                flow = self.listed.connect(QUIC)
                flow.sendall(first)
                self.closing(self.proxy.accept())
                self.assertDirect(flow, first)
                self.assertReason(reason)
                flow.close()

    def test_replies(self):
        hello = client_hello("www.example.org")
        ok, fine = b"HTTP/1.1 200 OK\r\nVia: squid\r\n\r\n", b"HTTP/1.0 299 Fine\r\nX: "
        long = fine + b"x" * (16384 - len(fine) - 4) + b"\r\n\r\n"
        cases = (  # judged by, what the proxy sends, what of it is the server's; None: no tunnel
            ("phrase", [b"HTTP/1.0 999 Connection Established\r\n\r\nrest"], b""),
            ("phrase", [ok], None), ("phrase", [b"Connection established"], None),
            ("phrase", [b"HTTP/1.1 200 ", b"Connection Established\r\n\r\n"], None),
            ("phrase", [b"\xff\xfe Connection Established\r\n\r\n"], None), ("phrase", [], None),
            ("status", [ok[at:at + 1] for at in range(len(ok))], b""), ("status", [long], b""),
            ("status", [b"HTTP/1.0 299\n\nrest"], b"rest"),
            ("status", [ok[:9], ok[9:] + b"220 hi\r\n"], b"220 hi\r\n"),
            ("status", [b"HTTP/1.1 407 Connection Established\r\n\r\n"], None),
            ("status", [b"HTTP/1.1 2000 OK\r\n\r\n"], None), ("status", [], None),
            ("status", [b"HTTP/2.0 200 OK\r\n\r\n"], None), ("status", [ok[:-2]], None),
            ("status", [long.replace(b"X: ", b"X:  ")], None))
        for judged, pieces, behind in cases:
            for end in ("close", "reset") if behind is None else (None,):
                with self.subTest(judged=judged, pieces=pieces[:2], end=end):
                    self.daemon.update("webProxy", [self.listed.program], connectReply=judged)
                    flow = self.listed.connect(QUIC)
                    peer = self.asked(flow, hello)
                    peer.socket.setsockopt(6, 1, 1)  # TCP_NODELAY
                    for piece in pieces:
                        peer.send(piece)
                        time.sleep(0.002 if judged == "status" else 0.2)
                    if behind is None:
                        getattr(peer, end)()
                        self.assertDirect(flow, hello)
                        self.assertReason("nw connect request establish failed")
                    else:
                        self.assertEqual(peer.read(len(hello)), hello)
                        self.assertEqual(flow.read(len(behind)), behind)
                        self.assertWorks(flow, peer)
                    flow.close()

    def test_a_silent_proxy_holds_the_flow_only(self):
        hello = client_hello("www.example.org")
        waiting = self.listed.connect(QUIC)
        self.asked(waiting, hello)
        flow = self.listed.connect(QUIC)  # each has its connection to the proxy from the start
        peer = self.asked(flow, hello)
        peer.send(ESTABLISHED)
        self.assertEqual(peer.read(len(hello)), hello)
        flow.close()
        waiting.reset()
        self.assertTrue(self.server.is_idle())

    def test_a_proxy_that_is_down_resets(self):
        for host, port in ((PROXY[0], "3129"), (NOWHERE, "80"), ("no-such-host.invalid", "80")):
            with self.subTest(host):
                self.daemon.update("webProxy", [self.listed.program], proxyHostname=host,
                                   proxyPort=port)
                with self.assertRaises(ConnectionResetError):
                    flow = self.listed.connect(QUIC)
                    flow.sendall(client_hello("www.example.org"))
                    flow.read()
                self.assertTrue(self.server.is_idle())  # no fallback
        self.assertIn("proxy failed:", self.daemon.log())
