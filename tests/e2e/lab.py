"""The laboratory of the end-to-end tests: two network namespaces and the cables between them.

    application side                              network side
    listed, unlisted, daemon
      eth0 192.0.2.2   (default route, metric 100)  192.0.2.1    servers at 203.0.113.10 and
      eth1 192.0.2.66  (metric 200)                 192.0.2.65   198.51.100.10, a private one at
      vpn0 10.8.0.2    (metric 50: the VPN)         10.8.0.1     10.99.0.1, and 2001:db8::10

A server knows a flow's way by its source address. The VPN has the better route, so a flow that went
natively comes from there, and from the very port that the application's socket has.

Nothing outside of these namespaces is changed. What an interrupted run left is removed by the next:
names carry the number of the process that made them.
"""

import atexit
import base64
import ctypes
import itertools
import json
import os
import pickle
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

PROVIDER = os.environ.get("TANDOR_PROVIDER", "")
#: Divides amounts of data and flows; a daemon under a sanitizer is several times slower.
SLOWNESS = int(os.environ.get("TANDOR_E2E_SLOWNESS", "1"))
#: Where the session lives that runs these tests: the daemon refuses to start there.
PROTECTED = os.readlink("/proc/self/ns/net")
#: How long anything may take that is expected to happen.
PATIENCE = 20 * max(1, SLOWNESS // 2)

ETH0, ETH1, VPN = "192.0.2.2", "192.0.2.66", "10.8.0.2"
SERVER, OTHER, PRIVATE, SERVER6 = "203.0.113.10", "198.51.100.10", "10.99.0.1", "2001:db8::10"
NOWHERE = "203.0.113.99"
PROXY = ("198.51.100.80", 3128)
#: The interface of each source address.
WAYS = {ETH0: "eth0", ETH1: "eth1", VPN: "vpn0"}
MARK_MASK, TAKE_MARK = 0x70000000, 0x30000000

_libc = ctypes.CDLL(None, use_errno=True)


def eventually(condition, what="", patience=None):
    """Waits until `condition()` is true and returns its value; fails when it never is."""
    deadline = time.monotonic() + (patience or PATIENCE)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"never happened: {what or condition}")
        time.sleep(0.01)


def command(*words, input=None, check=True):
    """Runs a program to its end; its output. An error shows what it said."""
    result = subprocess.run(words, input=input, text=True, capture_output=True, timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{' '.join(words)}: {result.stderr or result.returncode}")
    return result.stdout if check else result


def sweep(prefix):
    """Removes the namespaces and folders of runs that are no more; their names begin with `prefix`,
    and the number of the process that made them follows."""
    for folder in ("/run/netns", "/tmp"):
        for name in os.listdir(folder) if os.path.isdir(folder) else ():
            match = re.fullmatch(prefix + r"(\d+)-.*", name)
            if not match or os.path.exists(f"/proc/{match[1]}"):
                continue
            if folder == "/tmp":
                shutil.rmtree(f"/tmp/{name}", ignore_errors=True)
            else:
                command("ip", "netns", "del", name, check=False)


def _die_with_runner():
    """A child of a runner that was killed ends with it."""
    pr_set_pdeathsig = 1
    _libc.prctl(pr_set_pdeathsig, signal.SIGKILL)


class Namespace:
    """A network namespace. `with` puts the calling thread in, so that its new sockets are there."""

    _clone_newnet = 0x40000000

    def __init__(self, name):
        self.name = name
        self._home = threading.local()
        command("ip", "netns", "add", name)
        self.file = open(f"/run/netns/{name}")

    def __enter__(self):
        self._home.file = open("/proc/thread-self/ns/net")
        self._move(self.file)
        return self

    def __exit__(self, *_):
        self._move(self._home.file)
        self._home.file.close()

    def _move(self, file):
        if _libc.setns(file.fileno(), self._clone_newnet) != 0:
            os._exit(70)  # a thread in the wrong place could do harm

    def ip(self, script):
        command("ip", "-n", self.name, "-batch", "-", input=script)

    def run(self, *words, **options):
        return command("ip", "netns", "exec", self.name, *words, **options)

    def popen(self, *words, **options):
        options.setdefault("env", {**os.environ, "TANDOR_PROTECTED_NETNS": PROTECTED})
        return subprocess.Popen(["ip", "netns", "exec", self.name, *words],
                                preexec_fn=_die_with_runner, **options)

    def read(self, path):
        """A file that shows the namespace of whoever reads it."""
        with self, open(path) as file:
            return file.read()

    def write(self, path, text):
        with self, open(path, "w") as file:
            file.write(text)

    def received(self, interface):
        """Packets that came in."""
        table = self.read("/proc/thread-self/net/dev")
        return int(re.search(rf"{interface}:\s*\d+\s+(\d+)", table)[1])

    def remove(self):
        self.file.close()
        command("ip", "netns", "del", self.name)


def end(process):
    """Ends a process of ours, whatever it does."""
    if process.poll() is None:
        process.kill()
    process.wait(PATIENCE)
    for stream in (process.stdin, process.stdout):
        if stream:
            stream.close()


class Lab:
    _prefix = "tnd-e2e-"
    _numbers = itertools.count()

    def __init__(self):
        if os.geteuid() != 0:
            raise unittest.SkipTest("the end-to-end tests need root")
        if not os.access(PROVIDER, os.X_OK):
            raise unittest.SkipTest("TANDOR_PROVIDER names no program")
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
        # Only a veth of the application's side counts as a physical interface.
        self.app.ip(f"""
            link add link vpn1 name vpn0 type macvlan mode private
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
            probe.settimeout(0.1)
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
        found += [line for line in self.app.read("/proc/thread-self/net/tcp").splitlines()
                  if line.split()[1] == "0100007F:3A99"]
        found += self.app.read("/proc/thread-self/net/netfilter/nfnetlink_queue").splitlines()
        return found

    def tracked(self):
        """The tracked connections of the application's side, each with its mark."""
        lines = self.app.read("/proc/thread-self/net/nf_conntrack").splitlines()
        return [(line, int(re.search(r"mark=(\d+)", line)[1])) for line in lines]


class ControlError(Exception):
    def __init__(self, error):
        super().__init__(error["description"])
        self.code = error["code"]


class Control:
    """A client of the daemon's control socket."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(PATIENCE)
        self._socket.connect(path)
        self._lines = self._socket.makefile("r")
        self._last_id = 0

    def send(self, line, end=b"\n"):
        self._socket.sendall(line + end)

    def finish_sending(self):
        self._socket.shutdown(socket.SHUT_WR)

    def call(self, name, **members):
        self._last_id += 1
        self.send(json.dumps({"id": self._last_id, "call": name, **members}).encode())
        reply = self.line()
        assert reply["id"] == self._last_id, reply
        if reply["error"]:
            raise ControlError(reply["error"])
        return reply

    def line(self):
        line = self._lines.readline()
        if not line:
            raise EOFError("the daemon hung up")
        return json.loads(line)

    def close(self):
        self._lines.close()
        self._socket.close()


class Daemon:
    """A tandor-provider in the application's side."""

    def __init__(self, lab, wrapper=(), program=PROVIDER, path=None):
        self.path = path or f"{lab.folder}/control-{time.monotonic_ns()}"
        self._log_path = f"{lab.folder}/log-{time.monotonic_ns()}"
        with open(self._log_path, "w") as log:
            self.process = lab.app.popen(*wrapper, program, "--control", self.path,
                                         stderr=log, stdin=subprocess.DEVNULL)
        self.control = None
        try:
            self.control = eventually(self._connect, "it listens or ends")
            self.status()  # has it accepted us
        except (OSError, AssertionError):
            raise AssertionError(f"the daemon does not listen: {self.log()}") from None
        self.idle_descriptors = self.descriptors()

    def _connect(self):
        """Nothing as long as there is nobody, or only what a crash has left."""
        has_ended = self.process.poll() is not None
        try:
            return Control(self.path) if has_ended or os.path.exists(self.path) else None
        except OSError:
            if has_ended:
                raise

    def call(self, name, **members):
        return self.control.call(name, **members)

    def start(self, mode, apps, **keys):
        configuration = {"type": "NETunnelProviderProtocol",
                         "providerConfiguration": self._configuration(mode, apps, keys)}
        self.call("startProxy", protocolConfiguration=configuration)
        eventually(lambda: self.status()["directInterface"], "an interface is chosen")

    def update(self, mode, apps, **keys):
        content = json.dumps(self._configuration(mode, apps, keys)).encode()
        name = b"updateConfig"
        message = len(name).to_bytes(4, "big") + name + len(content).to_bytes(4, "big") + content
        self.call("appMessage", data=base64.b64encode(message).decode())

    @staticmethod
    def _configuration(mode, apps, keys):
        return {"mode": mode, "appIds": json.dumps(apps), "enable": "true", "debug": "true",
                "proxyHostname": PROXY[0], "proxyPort": str(PROXY[1]), **keys}

    def status(self):
        return self.call("status")["status"]

    def flows(self):
        return self.call("flows")["flows"]

    def await_no_flows(self):
        eventually(lambda: not self.flows(), "the last flow ends")

    def log(self):
        with open(self._log_path, errors="replace") as log:
            return log.read()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def _stat(self):
        """Its line in /proc, from the third field on."""
        with open(f"/proc/{self.process.pid}/stat") as stat:
            return stat.read().rpartition(")")[2].split()

    def cpu_seconds(self):
        return sum(map(int, self._stat()[11:13])) / os.sysconf("SC_CLK_TCK")

    def resident_bytes(self):
        return int(self._stat()[21]) * resource.getpagesize()

    def terminate(self, number=signal.SIGTERM):
        """Asks it to end; its exit status."""
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    def end(self):
        if self.control:
            self.control.close()
        end(self.process)
        assert "Sanitizer" not in self.log(), self.log()


class Application:
    """A process of the application's side that does what it is told: functions and sockets of
    clients.py, called here, happen there. An exception there is raised here."""

    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "clients.py")

    def __init__(self, lab, program, prefix=()):
        self._lab = lab
        self.program = program
        self.name = os.path.basename(program)
        self.process = lab.app.popen(
            *prefix, program, "-I", "-S", self.script, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, env={"PYTHONHOME": sys.base_prefix})
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
