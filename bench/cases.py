"""The cases: what is measured, of whom, and in which units."""

import contextlib
import os
import re
import subprocess
import time

from places import (DESTINATIONS, ECHO_PORT, MANY_DESTINATIONS, PORT, SINK_PORT, TICKS, Client,
                    Failed, die_with_runner, end)

GIGA = 1e9


class Metric:
    def __init__(self, title, unit, digits=1, compared=False):
        self.title, self.unit, self.digits = title, unit, digits
        #: Ratios of it are shown; those of a case's first one always are.
        self.compared = compared


def warm_up(seconds):
    return min(0.3, seconds / 2)


class Case:
    """What is measured of a contestant. The first metric is the case's own, the others explain it."""

    modes = ("direct", "connect")
    #: More rounds of it would show nothing new.
    most_rounds = 1000
    #: Shows what something costs as there is more of it.
    is_growth = False
    #: With a second CPU for everybody.
    is_wide = False

    def __init__(self, name, title):
        self.name, self.title = name, title

    def takes(self, contestant):
        return contestant.mode in self.modes

    def surroundings(self):
        """In force while all contestants are measured."""
        return contextlib.nullcontext()

    def measure(self, lab, contestant, seconds):
        """Values of the metrics, and what the client found."""
        raise NotImplementedError


class Bulk(Case):
    metrics = {"rate": Metric("", "Gbit/s"), "cost": Metric("relay's CPU", "s/GB", 3)}

    def __init__(self, direction, flows):
        super().__init__(f"bulk-{direction}-{flows}",
                         f"bulk {direction}, {flows} flow{'s' if flows > 1 else ''}")
        self.is_growth = flows > 8
        self._words = (f"bulk-{direction}", "--flows", flows)
        self._least_warm_up = 0 if flows < 100 else 1

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, *self._words, "--seconds", seconds, "--warm-up",
                       max(self._least_warm_up, warm_up(seconds))).finish()
        if not found["bytes"]:
            raise Failed("no byte came through")
        return {"rate": found["bytes"] * 8 / GIGA / found.our_seconds,
                "cost": found.relay_seconds / (found["bytes"] / GIGA)}, found


class Storm(Case):
    metrics = {"rate": Metric("", "/s", 0), "cost": Metric("relay's CPU", "s/1000", 4),
               "p50": Metric("a flow's life, p50", "µs", 0),
               "p99": Metric("a flow's life, p99", "µs", 0)}

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, "storm", "--flows", 32, "--size", 200, "--seconds",
                       seconds, "--warm-up", warm_up(seconds)).finish()
        flows, failed = found["flow_count"], found["failed"]
        if failed * 100 > flows:
            raise Failed(f"{failed} flows failed, {flows} did not")
        return {"rate": flows / found.our_seconds,
                "cost": found.relay_seconds / (flows / 1000),
                "p50": found["flow_p50"], "p99": found["flow_p99"]}, found


class StormOfTheOthers(Storm):
    """New flows of applications that are not taken, against no rules at all."""

    modes = ("left",)

    def takes(self, contestant):
        return contestant.name == "none" or super().takes(contestant)


class StormBesideIdle(Storm):
    """New flows while as many as possible are open."""

    is_growth = True
    metrics = {**Storm.metrics, "idle": Metric("open", "flows", 0)}

    def measure(self, lab, contestant, seconds):
        with idle_flows(lab, contestant) as count:
            values, found = super().measure(lab, contestant, seconds)
            return {**values, "idle": count}, found


class StormBesideProcesses(Storm):
    is_growth = True
    count = 500

    @contextlib.contextmanager
    def surroundings(self):
        processes = []
        try:
            for _ in range(self.count):
                processes.append(subprocess.Popen(["sleep", "600"], preexec_fn=die_with_runner))
            yield
        finally:
            for process in processes:
                end(process)


class Churn(Case):
    """A minute of new flows that their clients end at once. Whoever ends a flow keeps its port for
    another minute, and so does a relay that passes the end on; the range of ports is a machine's own."""

    metrics = {"steady": Metric("the last ten seconds' to the first", "", 2),
               "rate": Metric("rate", "/s", 0), "cost": Metric("relay's CPU", "s/1000", 4),
               "trip": Metric("another flow's round trip, p50: first", "µs", 0),
               "late_trip": Metric("last", "µs", 0)}
    most_rounds = 1
    is_growth = True

    def __init__(self, name, title, destinations, rate):
        super().__init__(name, title)
        self._destinations = [f"{address}:{PORT}" for address in destinations]
        self._rate = rate

    def takes(self, contestant):
        return contestant.name in ("none", "tandor", "before", "haproxy")

    def measure(self, lab, contestant, seconds):
        with default_ports(contestant):
            found = Client(lab, contestant, "churn", "--flows", 32, "--rate", self._rate,
                           "--seconds", 60 * seconds,
                           destinations=self._destinations).finish(patience=60 * seconds + 30)
        counts = [found[f"part{part}_flows"] for part in range(6)]
        if found["failed"] * 100 > sum(counts):
            raise Failed(f"{found['failed']} flows failed, {sum(counts)} did not")
        return {"steady": counts[-1] / counts[0], "rate": sum(counts) / found.seconds,
                "cost": found.relay_seconds / (sum(counts) / 1000),
                "trip": found["part0_trip_p50"], "late_trip": found["part5_trip_p50"]}, None


@contextlib.contextmanager
def default_ports(contestant):
    file, namespace = "/proc/sys/net/ipv4/ip_local_port_range", contestant.site.namespace
    before = namespace.read(file)
    namespace.write(file, "32768 60999")
    try:
        yield
    finally:
        namespace.write(file, before)


class Latency(Case):
    """Of what happens one after the other."""

    metrics = {"p50": Metric("p50", "µs", 1), "p99": Metric("p99", "µs", 1, compared=True)}

    def __init__(self, name, title, command, size, what):
        super().__init__(name, title)
        self._words = (command, "--size", size)
        self._what = what

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, *self._words, "--seconds", seconds, "--warm-up",
                       warm_up(seconds)).finish()
        return {key: found[f"{self._what}_{key}"] for key in self.metrics}, found


class Distance(Latency):
    """Two CPUs may be near or far from each other: figures of two are to be read with this one."""

    is_wide = is_growth = True

    def takes(self, contestant):
        return contestant.name == "none"

    def measure(self, lab, contestant, seconds):
        wide = contestant.placement
        contestant.placement = wide.apart()
        try:
            return super().measure(lab, contestant, seconds)
        finally:
            contestant.placement = wide


class Datagrams(Case):
    metrics = {"rate": Metric("", "/s", 0), "cost": Metric("relay's CPU", "s/million", 3)}
    modes = ("direct", "left")

    def __init__(self, name, title, port):
        super().__init__(name, title)
        self._port = port

    def takes(self, contestant):
        return super().takes(contestant) and contestant.carries_datagrams

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, self.name, "--flows", 32, "--size", 200, "--seconds",
                       seconds, destinations=[f"{DESTINATIONS[0]}:{self._port}"]).finish()
        count = found["bytes"]  # what is counted here
        return {"rate": count / found.our_seconds,
                "cost": found.relay_seconds / (count / 1e6 or 1)}, found


class Memory(Case):
    """Of idle flows; the relay is a new one, since memory that was in use is not all given back."""

    metrics = {"resident": Metric("relay, resident", "B/flow", 0),
               "kernel": Metric("kernel, with both ends", "B/flow", 0, compared=True),
               "cpu": Metric("relay's CPU meanwhile", "%", 2),
               "idle": Metric("open", "flows", 0)}
    most_rounds = 2
    is_growth = True

    def measure(self, lab, contestant, seconds):
        contestant.restart()
        # What is made once, at the first flows, is no flow's.
        with idle_flows(lab, contestant, 64):
            pass
        lab.forget_tracked()
        quiet = 0.5
        time.sleep(quiet)
        resident, kernel = resident_bytes(contestant), kernel_bytes()
        with idle_flows(lab, contestant) as count:
            time.sleep(quiet)
            values = {"kernel": (kernel_bytes() - kernel) / count, "idle": count}
            if contestant.pids():
                ticks = cpu_ticks(contestant)
                values["resident"] = (resident_bytes(contestant) - resident) / count
                time.sleep(2 * seconds)
                values["cpu"] = (cpu_ticks(contestant) - ticks) / TICKS / (2 * seconds) * 100
        return values, None


@contextlib.contextmanager
def idle_flows(lab, contestant, count=None):
    """Open flows, on which nothing happens; how many."""
    count = count or contestant.idle_flows()
    client = Client(lab, contestant, "idle", "--flows", count, stdin=subprocess.PIPE)
    try:
        client.await_line()
        yield count
    finally:
        ended = client.finish()["ended"]
        time.sleep(0.3)  # a relay closes them
    if ended:
        raise Failed(f"{ended} of {count} idle flows ended")


def resident_bytes(contestant):
    total = 0
    for pid in contestant.pids():
        with open(f"/proc/{pid}/statm") as file:
            total += int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    return total


def cpu_ticks(contestant):
    total = 0
    for pid in contestant.pids():
        with open(f"/proc/{pid}/stat") as file:
            total += sum(map(int, file.read().rpartition(")")[2].split()[11:13]))
    return total


#: Of the kernel's objects those that sockets need. Others come and go with whatever the machine
#: does, and so do the remains of flows that are over.
_OBJECTS = re.compile(r"TCP|sock_inode_cache|filp|dentry|eventpoll_\w+|ep_head|nf_conntrack|"
                      r"skbuff_\w+|tcp_bind\w*|lsm_\w+|kmalloc-(rnd-\d+-|cg-)?\d+k?")


def kernel_bytes():
    """What the sockets' objects and buffers take."""
    # Empty slabs are not given back by themselves.
    caches = "/sys/kernel/slab"
    for cache in os.listdir(caches) if os.path.isdir(caches) else ():
        with contextlib.suppress(OSError), open(f"{caches}/{cache}/shrink", "w") as file:
            file.write("1")
    total = 0
    with open("/proc/slabinfo") as file:
        for line in file:
            name, _, objects, size = line.split()[:4]
            if _OBJECTS.fullmatch(name):
                total += int(objects) * int(size)
    with open("/proc/net/sockstat") as file:
        buffers = next(int(line.split()[-1]) for line in file if line.startswith("TCP:"))
    return total + buffers * os.sysconf("SC_PAGE_SIZE")


def widened(case):
    """The same case with a second CPU."""
    case.is_wide = case.is_growth = True
    case.name, case.title = f"wide-{case.name}", f"{case.title}, two CPUs"
    return case


ALL = [
    Bulk("down", 1), Bulk("down", 8), Bulk("up", 1), Bulk("up", 8),
    Storm("flows", "new flows, 32 at a time"),
    Latency("setup", "set-up and first reply", "setup", 1, "setup"),
    Latency("trip", "round trip", "echo", 64, "trip"),
    Datagrams("datagram-echo", "datagrams there and back, 32 on their way", ECHO_PORT),
    Datagrams("datagram-sink", "datagrams one way", SINK_PORT),
    StormOfTheOthers("left", "new flows of an application that is not taken"),
    Memory("memory", "memory of an idle flow"),
    Bulk("down", 64), Bulk("down", 1000), Bulk("up", 1000),
    StormBesideIdle("flows-idle", "new flows beside open ones"),
    Churn("churn-one", "a minute of new flows to one server, 200 a second", DESTINATIONS[:1], 200),
    Churn("churn-many", "a minute of new flows to 240 servers", MANY_DESTINATIONS, 0),
    StormBesideProcesses("flows-processes", "new flows beside 500 processes"),
    Distance("distance", "round trip between the two CPUs", "echo", 64, "trip"),
    widened(Bulk("down", 8)), widened(Bulk("up", 8)),
    widened(Storm("flows", "new flows, 32 at a time")),
]

#: What stays the same as something grows: (title, the case, what it is compared with).
GROWTH = [
    ("bulk down: 64 flows against 1", "bulk-down-64", "bulk-down-1"),
    ("bulk down: 1000 flows against 1", "bulk-down-1000", "bulk-down-1"),
    ("bulk up: 1000 flows against 1", "bulk-up-1000", "bulk-up-1"),
    ("new flows: beside open ones against none", "flows-idle", "flows"),
    ("new flows: 500 more processes", "flows-processes", "flows"),
    ("bulk down, 8 flows: two CPUs against one", "wide-bulk-down-8", "bulk-down-8"),
    ("bulk up, 8 flows: two CPUs against one", "wide-bulk-up-8", "bulk-up-8"),
    ("new flows: two CPUs against one", "wide-flows", "flows"),
]
