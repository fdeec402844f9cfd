"""What happens to a daemon under soak: orders, ends, new configurations, other programs that remove its
rules, and users who attack it. One thing after the other, at random moments."""

import os
import random
import shutil
import time

from daemon import PROVIDER
from lab import Application
from namespaces import eventually
from server import PROXIES

HERE = os.path.dirname(os.path.abspath(__file__))
NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
DEAD_PROXY = 3134
#: Removals of the rules by others: how soon the daemon has them back, and how seldom they come, in
#: seconds. It gives up where somebody insists.
RECOVERY, FLUSH_INTERVAL = 8, 25


class Attacker(Application):
    """Whoever is somebody on this machine, and no more."""

    def __init__(self, lab):
        self.folder = lab.folder + "/attacks"
        os.mkdir(self.folder)
        for source in (HERE + "/attacks.py", HERE + "/tags.py", HERE + "/../e2e/clients.py"):
            shutil.copy(source, self.folder)
        os.chown(self.folder, 65534, 65534)
        self.script = self.folder + "/attacks.py"
        super().__init__(lab, lab.program("attacker"), NOBODY)


class Trouble:
    """A daemon, and what it has to bear, `without` some things. `may_die`: whether it is killed and
    started again."""

    def __init__(self, lab, ledger, may_die, without):
        self._lab, self._ledger, self._may_die = lab, ledger, may_die
        self._without = without
        self._chance = random.Random()
        self._programs = {name: lab.program(name) for name in ("taken", "left", "changing")}
        self._attacker = Attacker(lab)
        self._last_flush = 0
        self._path = lab.folder + "/control"
        self._bad_proxy = None  # the span of it
        self._terminal = ("setsid",)  # a service has no terminal; nor shall anybody give it one
        self.daemon = None
        self._begin_daemon()

    # The daemon's life.

    def _begin_daemon(self):
        self.daemon = self._lab.daemon(path=self._path, wrapper=self._terminal)
        self._start()

    def _start(self):
        mode, apps, keys = self._configuration()
        self.daemon.start(mode, apps, **keys)
        self._guard(mode)

    def _guard(self, mode):
        self._ledger.begin_guard(takes_datagrams=mode != "webProxy")

    def _kill(self):
        with self._ledger.event("kill"):
            self._ledger.end_guard()
            self.daemon.kill()
            self.daemon.end()
            time.sleep(self._chance.choice((0, 0, 1)))
            if self._chance.random() < 0.3:
                self._clean_up()
            self._begin_daemon()

    def _terminate(self):
        with self._ledger.event("terminate"):
            self._ledger.end_guard()
            if self.daemon.terminate() != 0:
                self._ledger.fault("an ordered end", f"status {self.daemon.process.returncode}")
            self.daemon.end()
            self.look_for_traces("an ordered end")
            self._begin_daemon()

    def _clean_up(self):
        self._lab.app.run(PROVIDER, "--cleanup")
        self.look_for_traces("a clean-up")

    def look_for_traces(self, after):
        traces = self._lab.traces()
        if traces:
            self._ledger.fault(f"traces after {after}", f"{len(traces)}: {traces[:4]}")

    # Orders.

    def _configuration(self):
        chance = self._chance
        mode = chance.choice(("directlyWhiteList", "webProxy", "tunnelWhiteList"))
        listed = ["left"] if mode == "tunnelWhiteList" else ["taken"]
        apps = listed + (["changing"] if chance.random() < 0.5 else [])
        port = 3128
        if mode == "webProxy" and "proxies" not in self._without:
            port = chance.choice((port, *PROXIES, DEAD_PROXY))
        if self._bad_proxy:
            self._bad_proxy.__exit__()
            self._bad_proxy = None
        if port == DEAD_PROXY or PROXIES[port].__name__ == "cuts":
            self._bad_proxy = self._ledger.event("bad proxy")
            self._bad_proxy.__enter__()
        reply = chance.choice(("phrase", "status"))
        return mode, [self._programs[name] for name in apps], {
            "proxyPort": str(port), "connectReply": reply, "debug": "false"}

    def _update(self):
        self._ledger.events["update"] += 1
        self._ledger.end_guard()
        mode, apps, keys = self._configuration()
        self.daemon.update(mode, apps, **keys)
        self._guard(mode)

    def _stop_and_start(self, is_alone=True):
        with self._ledger.event("stop"):
            self._ledger.end_guard()
            self.daemon.call("stopProxy")
            if is_alone:  # or else others' sockets look like traces
                self.look_for_traces("a stop")
            self._start()

    def _sleep(self):
        with self._ledger.event("sleep"):
            self._ledger.end_guard()
            self.daemon.call("sleep")
            time.sleep(self._chance.random())
            self.daemon.call("wake")
        self._update()

    def rest(self):
        """Without any flow for a moment; the daemon's resident bytes and its descriptors."""
        with self._ledger.event("sleep"):
            self._ledger.end_guard()
            self.daemon.call("sleep")
            try:
                self.daemon.await_no_flows()
            except AssertionError:
                self._ledger.fault("flows without an end", str(self.daemon.flows()[:3]))
            time.sleep(1)
            held = self.daemon.resident_bytes(), self.daemon.descriptors()
            self.daemon.call("wake")
        self._update()
        return held

    # Other programs.

    def _flush(self):
        if time.monotonic() < self._last_flush + FLUSH_INTERVAL:
            return
        what, flush = self._chance.choice((
            ("iptables -F", lambda: self._lab.app.run("iptables", "-t", "mangle", "-F")),
            ("nft flush", self._flush_tables),
            ("rule flush", self._flush_routing),
            ("rule deleted", lambda: self._lab.app.ip("rule del pref 1"))))
        with self._ledger.event("flush"), self._ledger.event(what):
            self._ledger.end_guard()
            flush()
            time.sleep(RECOVERY)
        self._last_flush = time.monotonic()
        if self.daemon.status()["state"] != "running":
            self._ledger.fault("a daemon that gave up", self.daemon.log()[-300:])
        self._update()

    def _flush_tables(self):
        """With its tables' hooks, the kernel drops whatever waits in a queue."""
        with self._ledger.event("no hooks"):
            self._lab.app.run("nft", "flush", "ruleset")

    def _flush_routing(self):
        """The machine's own rules are gone, too, for a moment."""
        with self._ledger.event("no routes"):
            self._lab.app.ip("rule flush\nrule add pref 32766 lookup main\n"
                             "rule add pref 32767 lookup default")

    # Users.

    def _attack(self):
        attack = self._chance.choice((self._pose, self._pose, self._flood, self._squat))
        attack()

    def _pose(self):
        name = self._chance.choice(("pose_with_pipe", "pose_with_terminal"))
        self._ledger.events[name] += 1
        if not self._attacker.call(name, self._attacker.folder):
            self._ledger.fault(name, "its flow was held")

    def _flood(self):
        self._ledger.events["flood"] += 1
        if not self._attacker.call("flood", self._attacker.folder, 40):
            self._ledger.fault("flood", "a flow of it was held")

    def _squat(self):
        self._ledger.events["squat"] += 1
        self._attacker.begin("squat", self._listening(), 3)
        if self._chance.random() < 0.5:  # it was there before the daemon's next start
            time.sleep(0.5)
            self._stop_and_start(is_alone=False)
        stolen = self._attacker.finish()
        if stolen:
            self._ledger.fault("squat", f"{stolen} packets went to who is not the daemon")

    def _listening(self):
        """The ports of the application's side on which somebody listens, or may."""
        ports = {15001}
        for name, state in (("tcp", "0A"), ("udp", "07")):
            for line in self._lab.app.read(f"/proc/thread-self/net/{name}").splitlines()[1:]:
                words = line.split()
                if words[3] == state:
                    ports.add(int(words[1].rpartition(":")[2], 16))
        return sorted(ports)

    # All of it.

    def happen(self):
        """One thing."""
        things = (("updates", self._update, 8), ("stops", self._stop_and_start, 2),
                  ("sleeps", self._sleep, 1), ("flushes", self._flush, 2),
                  ("attacks", self._attack, 4), ("kills", self._kill, 6 * self._may_die),
                  ("ends", self._terminate, 2 * self._may_die))
        functions, weights = zip(*(thing[1:] for thing in things if thing[0] not in self._without))
        try:
            self._chance.choices(functions, weights)[0]()
        except (OSError, EOFError, AssertionError):
            if self.daemon.process.poll() is None:
                raise
        if self.daemon.process.poll() is not None:
            self._ledger.fault("the daemon ended", f"status {self.daemon.process.returncode}: "
                               + self.daemon.log()[-300:])
            with self._ledger.event("kill"):
                self._begin_daemon()
        time.sleep(self._chance.uniform(0.5, 6))

    def end(self):
        """The last end, in order."""
        self._attacker.close()
        with self._ledger.event("terminate"):
            self._ledger.end_guard()
            status = self.daemon.terminate()
        if status != 0:
            self._ledger.fault("the last end", f"status {status}")
        eventually(lambda: not os.path.exists(self._path), "the socket is removed")
        self.look_for_traces("the last end")
