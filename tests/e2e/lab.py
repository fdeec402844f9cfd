"""The laboratory of the end-to-end tests: two network namespaces and the cables between them.

    application side                              network side
    listed, unlisted, daemon
      eth0 192.0.2.2   (default route, metric 100)  192.0.2.1    servers at 203.0.113.10 and
      eth1 192.0.2.66  (metric 200)                 192.0.2.65   198.51.100.10, a private one at
      vpn0 10.8.0.2    (metric 50: the VPN)         10.8.0.1     10.99.0.1, and 2001:db8::10

A server knows a flow's way by its source address. The VPN has the better route, so a flow that went
natively comes from there, and from the very port that the application's socket has.
"""

import atexit
import contextlib
import itertools
import os
import pickle
import re
import resource
import shutil
import socket
import subprocess
import sys
import time
import unittest

from daemon import PROVIDER, PROXY, Daemon
from namespaces import PATIENCE, SLOWNESS, Namespace, end, eventually, sweep

ETH0, ETH1, VPN = "192.0.2.2", "192.0.2.66", "10.8.0.2"
SERVER, OTHER, PRIVATE, SERVER6 = "203.0.113.10", "198.51.100.10", "10.99.0.1", "2001:db8::10"
NOWHERE = "203.0.113.99"
#: The interface of each source address.
WAYS = {ETH0: "eth0", ETH1: "eth1", VPN: "vpn0"}
MARK_MASK, TAKE_MARK = 0x70000000, 0x30000000


class Lab:
    _prefix = "tnd-e2e-"
    _numbers = itertools.count()

    def __init__(self):
        if os.geteuid() != 0:
            raise unittest.SkipTest("the end-to-end tests need root")
        if not os.access(PROVIDER, os.X_OK):
            raise unittest.SkipTest("TANDOR_PROVIDER names no program")
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))  # servers of thousands are here
        sweep(self._prefix)
        stem = f"{self._prefix}{os.getpid()}-{next(self._numbers)}"
        self.folder = f"/tmp/{stem}"
        self._undo = [lambda: shutil.rmtree(self.folder)]
        os.mkdir(self.folder)
        atexit.register(self.close)
        self.app = self._namespace(stem + "-app")
        self.net = self._namespace(stem + "-net")
        self._cable()

    def _namespace(self, name):
        namespace = Namespace(name)
        self._undo.append(namespace.remove)
        return namespace

    def _cable(self):
        self.net.ip(f"""
            link add eth0 type veth peer name eth0 netns {self.app.name}
            link add eth1 type veth peer name eth1 netns {self.app.name}
            link add vpn0 type veth peer name vpn1 netns {self.app.name}
            address add {SERVER}/32 dev lo
            address add {OTHER}/32 dev lo
            address add {PROXY[0]}/32 dev lo
            address add {PRIVATE}/32 dev lo
            address add {SERVER6}/128 dev lo nodad
            address add 192.0.2.1/26 dev eth0
            address add 192.0.2.65/26 dev eth1
            address add 10.8.0.1/24 dev vpn0
            address add fd00::1/64 dev eth0 nodad""")
        # A veth of the application's side counts as a physical interface, but not as a bridge's port.
        self.app.ip(f"""
            link add vpn0 type bridge
            link set vpn1 master vpn0
            address add {ETH0}/26 dev eth0
            address add {ETH1}/26 dev eth1
            address add {VPN}/24 dev vpn0
            address add fd00::2/64 dev eth0 nodad""")
        for namespace, links in ((self.app, ("vpn1", "vpn0")), (self.net, ("vpn0",))):
            for path in ("all/rp_filter", "default/rp_filter", "eth0/rp_filter", "eth1/rp_filter",
                         "vpn0/rp_filter"):
                namespace.write(f"/proc/sys/net/ipv4/conf/{path}", "2")
            namespace.ip("".join(f"link set {link} up\n" for link in ("lo", "eth0", "eth1", *links)))
        self.app.ip(f"""
            route add default via 10.8.0.1 dev vpn0 metric 50
            route add default via 192.0.2.1 dev eth0 metric 100
            route add default via 192.0.2.65 dev eth1 metric 200
            route add default via fd00::1 dev eth0
            route add unreachable {NOWHERE}""")
        # No name is ever looked up outside, and nobody waits for that.
        with open("/etc/resolv.conf") as resolver:
            for server in re.findall(r"^nameserver (\d+(?:\.\d+){3})$", resolver.read(), re.M):
                if not server.startswith("127."):
                    self.app.ip(f"route replace unreachable {server}")
        # The first packets find their neighbours.
        for interface in WAYS.values():
            eventually(lambda: self._reaches(interface), f"a way over {interface}")

    def _reaches(self, interface):
        with self.app, socket.socket() as probe:
            probe.settimeout(0.1 * SLOWNESS)
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode())
            try:
                probe.connect((SERVER, 9))
            except ConnectionRefusedError:
                return True
            except OSError:
                return False

    def close(self):
        while self._undo:
            self._undo.pop()()
        atexit.unregister(self.close)

    def daemon(self, **options):
        daemon = Daemon(self, **options)
        self._undo.append(daemon.end)
        return daemon

    def program(self, name):
        """The path of a program of that name: a copy of this interpreter."""
        path = f"{self.folder}/{name}"
        if not os.path.exists(path):
            shutil.copy(os.path.realpath(sys.executable), path)
        return path

    def application(self, name):
        application = Application(self, self.program(name))
        self._undo.append(application.close)
        return application

    def traces(self):
        """Whatever the daemon has in the system of the application's side."""
        found = []
        for table in ("mangle", "filter"):
            saved = self.app.run("iptables-save", "-t", table)
            found += [line for line in saved.splitlines() if "TANDOR" in line]
        found += [line for line in self.app.run("ip", "rule").splitlines() if "7700" in line]
        found += self.app.run("ip", "route", "show", "table", "7700", check=False).stdout.splitlines()
        found += [line for line, mark in self.tracked() if mark & MARK_MASK == TAKE_MARK]
        found += [f"{kind} port {port}" for kind, port in self.listeners()]
        found += self.app.read("/proc/thread-self/net/netfilter/nfnetlink_queue").splitlines()
        return found

    def listeners(self):
        """The ports of the application side's loopback address where somebody waits for anybody."""
        found = []
        for kind, waiting in (("tcp", "0A"), ("udp", "07")):
            for line in self.app.read(f"/proc/thread-self/net/{kind}").splitlines()[1:]:
                _, local, _, state, *_ = line.split()
                address, port = local.split(":")
                if (address, state) == ("0100007F", waiting):
                    found.append((kind, int(port, 16)))
        return found

    def tracked(self):
        """The tracked connections of the application's side, each with its mark."""
        lines = self.app.read("/proc/thread-self/net/nf_conntrack").splitlines()
        return [(line, int(re.search(r"mark=(\d+)", line)[1])) for line in lines]


class Application:
    """A process of the application's side that does what it is told: functions and sockets of
    clients.py, called here, happen there. An exception there is raised here."""

    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "clients.py")

    def __init__(self, lab, program, prefix=(), namespace=None):
        self._lab = lab
        self.program = program
        self.name = os.path.basename(program)
        self.process = (namespace or lab.app).popen(
            *prefix, program, "-I", "-S", self.script, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            env={"PYTHONHOME": sys.base_prefix, "TANDOR_E2E_PATIENCE": str(PATIENCE)})
        self.pid = self.call("pid")

    def begin(self, function, *arguments):
        """Lets it begin; finish() waits for the result. One at a time."""
        pickle.dump((function, arguments), self.process.stdin)
        self.process.stdin.flush()

    def finish(self):
        is_result, value = pickle.load(self.process.stdout)
        if is_result:
            return value
        raise value

    def call(self, function, *arguments):
        self.begin(function, *arguments)
        return self.finish()

    def socket(self, kind="tcp", **options):
        return RemoteSocket(self, self.call("open_socket", kind, options))

    def connect(self, address, kind="tcp", **options):
        """A new socket that is connected to `address`."""
        remote = self.socket(kind, **options)
        remote.connect(address)
        return remote

    def become(self, other, socket):
        """Replaces the process's program by another application's; it keeps one socket."""
        self.call("become", other.program, self.script, socket.number)

    def kept(self):
        return RemoteSocket(self, 1)

    def twin(self):
        """Another process of the same application."""
        return self._lab.application(self.name)

    def close(self):
        end(self.process)


class RemoteSocket:
    """A socket of an Application, with the methods of a socket. Those of Python's sockets that
    return one are not for it."""

    def __init__(self, application, number):
        self._application = application
        self.number = number

    def __getattr__(self, method):
        return lambda *arguments: self._application.call(
            "use_socket", self.number, method, arguments)

    def begin(self, method, *arguments):
        self._application.begin("use_socket", self.number, method, arguments)


def with_descriptors(count):
    """The words that let a program have no more than so many, even one that would raise its limit."""
    return ("prlimit", f"--nofile={count}:{count}", "setpriv", "--bounding-set=-sys_resource")


class EndToEnd(unittest.TestCase):
    """A lab with a listed and an unlisted application and an idle daemon for all tests of a class.
    Whatever a test does, afterwards nothing of it is left in the system or in the daemon."""

    #: What the daemon is started by.
    wrapper = ()

    @classmethod
    def setUpClass(cls):
        cls.lab = Lab()
        cls.addClassCleanup(cls.lab.close)
        cls.listed, cls.unlisted = cls.lab.application("listed"), cls.lab.application("unlisted")
        cls.daemon = cls.lab.daemon(wrapper=cls.wrapper)

    def setUp(self):
        if self.daemon.process.poll() is not None:
            type(self).daemon = self.lab.daemon(wrapper=self.wrapper)
        self.addCleanup(self.stop)

    def start(self, mode, **keys):
        """Starts a provider with the listed application, instead of the one before."""
        self.stop()
        self.daemon.start(mode, [self.listed.program], **keys)

    def stop(self):
        """Stops the provider, if there is one; nothing is left of it."""
        if self.daemon.process.poll() is None:
            if self.daemon.status()["state"] in ("running", "asleep", "failed"):
                self.daemon.call("stopProxy")
            self.assertEqual(self.daemon.flows(), [])
            eventually(lambda: self.daemon.descriptors() <= self.daemon.idle_descriptors,
                       "the last descriptor is closed")
        self.assertEqual(self.lab.traces(), [])

    def closing(self, closable):
        """The same object, closed at the end of the test."""
        self.addCleanup(closable.close)
        return closable

    @contextlib.contextmanager
    def assertPrompt(self, seconds):
        """What is done meanwhile takes less time than that, on a machine of usual speed."""
        begin = time.monotonic()
        yield
        self.assertLess(time.monotonic() - begin, seconds * SLOWNESS)

    def assertWay(self, expected, application, address, kind="tcp", **options):
        """A new flow exchanges bytes on this way: "native", "proxy", or relayed over an interface
        ("eth0", "eth1", "vpn0"). Asks self.echo, which stands at the address and at the proxy's."""
        self.assertEqual(self.way(application, address, kind, **options), expected,
                         f"{application.name} by {kind} to {address}")

    def way(self, application, address, kind="tcp", **options):
        flow = application.connect(address, kind, **options)
        local = flow.getsockname()[:2]
        token = f"GET /{local[1]}-{time.monotonic_ns()} HTTP/1.1\r\nX-ä: 1\r\n\r\n".encode()
        flow.send(token)
        self.assertEqual(flow.recv(1 << 16), token)
        flow.close()
        heard_by, source = self.echo.heard(token)
        if heard_by == PROXY:
            return "proxy"
        return "native" if source == local else WAYS[source[0]]
