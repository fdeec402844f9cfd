"""Where the benchmark happens: namespaces of its own, and what runs in them.

    one namespace for each contestant                one for all
    client, relay: 192.0.2.N ───────── veth ───────── server: 203.0.113.10 to .13, port 443
    (a second address for the relay's own flows)      proxy: 198.51.100.80, port 3128

Each contestant has its rules in its own namespace, so that they all may stay started and be measured
in turn. Nothing outside of the namespaces is changed; what an interrupted run left is removed by the
next: names carry the number of the process that made them.
"""

import atexit
import ctypes
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from daemon import Daemon  # noqa: E402
from namespaces import Namespace, command, end, eventually, sweep  # noqa: E402

DESTINATIONS = [f"203.0.113.{number}" for number in range(10, 14)]
MANY_DESTINATIONS = [f"203.0.113.{number}" for number in range(10, 250)]
PROXY = "198.51.100.80"
PORT, PROXY_PORT, ECHO_PORT, SINK_PORT = 443, 3128, 4433, 4434
TICKS = os.sysconf("SC_CLK_TCK")
#: Congestion control does not decide; ports do not run out; what is over is forgotten soon.
SETTINGS = {
    "ipv4/tcp_congestion_control": "reno",
    "ipv4/tcp_no_metrics_save": "1",
    # Timestamps that begin alike everywhere. Behind a redirection, flows to different destinations
    # from the same port look alike, and a flow that is just over would delay the next one.
    "ipv4/tcp_timestamps": "2",
    "ipv4/ip_local_port_range": "16000 65535",
    "ipv4/conf/all/rp_filter": "0",
    "ipv4/conf/default/rp_filter": "0",
    "netfilter/nf_conntrack_tcp_timeout_time_wait": "1",
    "netfilter/nf_conntrack_tcp_timeout_close": "1",
}

_libc = ctypes.CDLL(None, use_errno=True)


class Failed(Exception):
    """A contestant, or a measurement, cannot be had; says why."""


def die_with_runner():
    """A child of a runner that was killed ends with it."""
    pr_set_pdeathsig = 1
    _libc.prctl(pr_set_pdeathsig, signal.SIGKILL)


class Placement:
    """Who may run on which CPUs."""

    def __init__(self, text):
        parts = [self._cpus(part) for part in text.split("/")]
        if len(parts) not in (1, 3):
            raise ValueError(f"{text} is neither CPUS nor CLIENT/RELAY/SERVER")
        self.client, self.relay, self.server = parts * 3 if len(parts) == 1 else parts
        self.all = sorted(set(self.client + self.relay + self.server))

    def widened(self):
        """With one more CPU for everybody; None when the machine has no other one."""
        others = sorted(os.sched_getaffinity(0) - set(self.all))
        if len(self.all) > 1 or not others:
            return None
        return Placement(f"{self.all[0]},{others[0]}")

    def apart(self):
        """The client on the first, the others on the last of these CPUs."""
        return Placement(f"{self.all[0]}/{self.all[-1]}/{self.all[-1]}")

    def __str__(self):
        return "CPU " + "/".join(",".join(map(str, cpus)) for cpus in
                                 ([self.all] if self.client == self.relay == self.server else
                                  [self.client, self.relay, self.server]))

    @staticmethod
    def _cpus(text):
        cpus = []
        for part in text.split(","):
            first, _, last = part.partition("-")
            cpus += range(int(first), int(last or first) + 1)
        if not set(cpus) <= os.sched_getaffinity(0):
            raise ValueError(f"there is no CPU {text} to run on")
        return sorted(set(cpus))


def ksoftirqd(cpus):
    """The kernel's threads that do what our packets leave to do."""
    found = []
    for entry in os.listdir("/proc"):
        try:
            with open(f"/proc/{entry}/comm") as file:
                name = file.read().strip()
        except OSError:
            continue
        if name in [f"ksoftirqd/{cpu}" for cpu in cpus]:
            found.append(int(entry))
    return found


class Site:
    """A contestant's namespace."""

    def __init__(self, lab, name, number):
        self.lab = lab
        self.namespace = lab.namespace(name)
        base = 8 * number
        self.address, self.relay_address = f"192.0.2.{base + 2}", f"192.0.2.{base + 3}"
        near, far = self.namespace, lab.network
        far.ip(f"""
            link add site{number} type veth peer name eth0 netns {near.name}
            address add 192.0.2.{base + 1}/29 dev site{number}
            link set site{number} up""")
        near.ip(f"""
            address add {self.address}/29 dev eth0
            address add {self.relay_address}/29 dev eth0
            link set lo up
            link set eth0 up
            route add default via 192.0.2.{base + 1} dev eth0 src {self.address}""")
        lab.set(near)

    def popen(self, *words, cpus, **options):
        """A program in here, on these CPUs; it ends with the runner."""
        def prepare():
            die_with_runner()
            os.sched_setaffinity(0, cpus)
        with self.namespace:
            return subprocess.Popen(words, preexec_fn=prepare, **options)


class Lab:
    _prefix = "tnd-bench-"

    def __init__(self, build, placement, most_idle_flows, other_provider=None):
        self.placement = placement
        self.most_idle_flows = most_idle_flows
        sweep(self._prefix)
        self._stem = f"{self._prefix}{os.getpid()}"
        self.folder = f"/tmp/{self._stem}-files"
        os.mkdir(self.folder)
        self._undo = [lambda: shutil.rmtree(self.folder)]
        atexit.register(self.close)
        self.provider = f"{build}/src/tandor-provider"
        self.other_provider = other_provider
        # One program, two applications.
        self.client, self.other_client = f"{self.folder}/listed", f"{self.folder}/unlisted"
        for copy in (self.client, self.other_client):
            shutil.copy(f"{build}/bench/tandor-load", copy)
        self.counters = f"{self.folder}/counters"
        self._sites = 0
        self._namespaces = []
        self.network = self.namespace("net")
        self.network.ip("link set lo up\n" + "".join(
            f"address add {address}/32 dev lo\n" for address in (*MANY_DESTINATIONS, PROXY)))
        self.set(self.network)
        self._serve(f"{build}/bench/tandor-load")
        self.kernel_threads = ksoftirqd(range(os.cpu_count()))

    def _serve(self, program):
        words = ["taskset", "-c", ",".join(map(str, self.placement.server)), program, "server",
                 "--counters", self.counters, "--datagrams-at", DESTINATIONS[0]]
        self.server = self.network.popen(*words, stdout=subprocess.PIPE, text=True)
        self._undo.append(lambda: end(self.server))
        if self.server.stdout.readline() != "ready\n":
            raise Failed("the server does not start")

    def namespace(self, name):
        namespace = Namespace(f"{self._stem}-{name}")
        self._namespaces.append(namespace)
        self._undo.append(namespace.remove)
        return namespace

    @staticmethod
    def set(namespace):
        for path, value in SETTINGS.items():
            try:
                namespace.write(f"/proc/sys/net/{path}", value)
            except FileNotFoundError:
                pass  # connection tracking is not there yet, and then keeps nothing either

    def site(self, name):
        self._sites += 1
        return Site(self, name, self._sites)

    def forget_tracked(self):
        """Makes the namespaces' connection tracking forget at once what is over."""
        netlink_netfilter, delete, request, length = 12, 1 << 8 | 2, 1, 20
        for namespace in self._namespaces:
            with namespace:
                netlink = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, netlink_netfilter)
            with netlink:
                netlink.send(struct.pack("=IHHIIBBH", length, delete, request, 1, 0, 0, 0, 0))

    def on_close(self, action):
        self._undo.append(action)

    def close(self):
        # Nothing may interrupt the cleaning up.
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        while self._undo:
            try:
                self._undo.pop()()
            except Exception as error:  # the rest is to be removed all the same
                print(f"bench: while cleaning up: {error}", file=sys.stderr)
        atexit.unregister(self.close)


class Client:
    """A run of the load tool's client for a contestant."""

    def __init__(self, lab, contestant, case, *words, destinations=None, **options):
        self._lab, self._contestant = lab, contestant
        if destinations is None:
            destinations = [f"{PROXY}:{PROXY_PORT}"] if contestant.speaks_connect else \
                [f"{address}:{PORT}" for address in DESTINATIONS]
        os.sched_setaffinity(lab.server.pid, contestant.placement.server)
        watched = [lab.server.pid, *lab.kernel_threads, *contestant.pids()]
        line = [contestant.client, "client", case, "--counters", lab.counters, *map(str, words)]
        line += [word for to in destinations for word in ("--to", to)]
        line += [word for pid in watched for word in ("--watch", str(pid))]
        if contestant.speaks_connect:
            line.append("--connect")
        self.process = contestant.site.popen(*line, cpus=contestant.placement.client, text=True,
                                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                             **options)

    def await_line(self):
        """Until it says that it is so far."""
        if not self.process.stdout.readline():
            self.finish()

    def finish(self, patience=60):
        """What it has found out."""
        try:
            output, errors = self.process.communicate(timeout=patience)
        except subprocess.TimeoutExpired:
            raise Failed(f"no end after {patience} s") from None
        finally:
            end(self.process)
        if self.process.returncode != 0:
            raise Failed(errors.strip() or f"the client ended with {self.process.returncode}")
        return Found(self._lab, self._contestant, json.loads(output.splitlines()[-1]))


class Found:
    """What a client reports, and whose CPU time it took."""

    def __init__(self, lab, contestant, members):
        self.members = members
        if "seconds" not in members:
            return
        self.seconds = members["seconds"]
        ticks = {int(pid): value for pid, value in members["process_ticks"].items()}
        self.relay_seconds = sum(ticks[pid] for pid in contestant.pids() if pid in ticks) / TICKS
        own = sum(ticks.values()) / TICKS + members["own_seconds"]
        cpus = contestant.placement.all
        busy = sum(members["cpu_ticks"][cpu] for cpu in cpus) / TICKS
        #: The part of our CPUs' time that others took.
        self.foreign = max(0.0, busy - own) / (self.seconds * len(cpus))
        others = [value for cpu, value in enumerate(members["cpu_ticks"]) if cpu not in cpus]
        self.elsewhere = sum(others) / TICKS / self.seconds / len(others) if others else 0.0
        #: What is left of the time when what others took is taken off.
        self.our_seconds = self.seconds * (1 - self.foreign)

    def __getitem__(self, name):
        return self.members[name]


def pause(seconds=0.05):
    """Lets the last measurement's remains go."""
    time.sleep(seconds)
