"""Everything at once, for long: two laboratories side by side, in namespaces of their own, with flows of
every kind whose every byte is looked at, and with daemons that have trouble of every kind. In the one the
daemon is killed again and again; in the other it lives from the beginning to the end, and its memory is
weighed. Ends with status 1 and the reasons when a flow was lost, anything is left, or memory grows."""

import argparse
import os
import signal
import sys
import threading
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, "..", "e2e")]
from lab import Application, Lab  # noqa: E402
from ledger import Ledger  # noqa: E402
from namespaces import command, eventually  # noqa: E402
from tags import PATIENCE  # noqa: E402
from trouble import Trouble  # noqa: E402

#: Applications: the kinds of flows that they do without, how many they have at once, and the seconds
#: between one flow and the next. What is relayed has no half-close.
APPLICATIONS = {"taken": ({"half_close"}, 10, 0.3), "left": (set(), 10, 0.3),
                "changing": ({"half_close"}, 4, 0.5)}
#: What the daemon's memory may grow by after the first quarter: a fraction, and bytes.
GROWTH, SLACK = 1.1, 4 << 20


class Traffic(Application):
    script = HERE + "/traffic.py"


class Server(Application):
    script = HERE + "/server.py"


class Soak:
    """One laboratory, with a daemon that is killed or one that lives."""

    def __init__(self, name, may_die, without):
        self.ledger = Ledger(name)
        self.rests = []  # (when, resident bytes, descriptors)
        self._may_die = may_die
        self._lab = Lab()
        self._before = self._surroundings()
        self._server = Server(self._lab, self._lab.program("server"), namespace=self._lab.net)
        self._server.call("begin")
        self._applications = {}
        for application, (not_its, *load) in APPLICATIONS.items():
            traffic = self._applications[application] = Traffic(
                self._lab, self._lab.program(application))
            traffic.call("begin_load", application, not_its | without, *load)
        self.trouble = Trouble(self._lab, self.ledger, may_die, without)
        self._thread = None

    def begin(self, deadline, rest_interval):
        # What a thread starts ends with it: this one sees everything to its end.
        self._thread = threading.Thread(target=self._run, args=(deadline, rest_interval), daemon=True)
        self._thread.start()

    def _run(self, deadline, rest_interval):
        try:
            next_rest = time.monotonic() + rest_interval
            while time.monotonic() < deadline:
                self.trouble.happen()
                self.collect()
                if not self._may_die and time.monotonic() > next_rest:
                    next_rest += rest_interval
                    self.rests.append((time.monotonic(), *self.trouble.rest()))
            self._end()
        except Exception as error:  # whatever it is, the other laboratory goes on
            self.ledger.fault("the soak cannot go on", repr(error))
            traceback.print_exc()

    def collect(self):
        # The server first: what it knows of, the application may not know yet, but not the other way.
        self.ledger.judge_server(self._server.call("collect"))
        for name, application in self._applications.items():
            self.ledger.judge_application(name, application.call("collect"))
        self.ledger.forget(time.monotonic() - 4 * PATIENCE)

    def _end(self):
        """Ends everything, flows first; whatever is left then is a fault."""
        for application in self._applications.values():
            application.begin("end_load")
        for application in self._applications.values():
            application.finish()
        time.sleep(1)
        self.collect()
        if not self._may_die:
            self.rests.append((time.monotonic(), *self.trouble.rest()))
            self._weigh()
        self.trouble.end()
        self._close_processes()
        self._look_for_leftovers()

    def _close_processes(self):
        for application in (*self._applications.values(), self._server):
            application.close()

    def end(self):
        """Waits for the end of everything."""
        self._thread.join()
        self._close_processes()
        self._lab.close()

    def _weigh(self):
        """What it always holds in the last quarter, beside the most that it held in the first."""
        quarter = max(1, len(self.rests) // 4)
        _, resident, descriptors = (min(held) for held in zip(*self.rests[-quarter:]))
        _, most, most_descriptors = (max(held) for held in zip(*self.rests[:quarter]))
        if resident > most * GROWTH + SLACK:
            self.ledger.fault("memory grows", f"from {most >> 10} to {resident >> 10} KiB at rest")
        if descriptors > most_descriptors:
            self.ledger.fault("descriptors grow", f"from {most_descriptors} to {descriptors} at rest")

    def _surroundings(self):
        """What the system of the application's side is like, without what only time changes."""
        commands = (("ip", "rule"), ("ip", "-4", "route", "show", "table", "all"),
                    ("ss", "-Htuan", "exclude", "time-wait"))
        return {line for words in commands for line in self._lab.app.run(*words).splitlines()}

    @staticmethod
    def _pinned():
        folder = "/sys/fs/bpf"
        return os.listdir(folder) if os.path.isdir(folder) else []

    def _look_for_leftovers(self):
        def is_as_before():
            return self._surroundings() == self._before

        try:
            eventually(is_as_before, "", PATIENCE)
        except AssertionError:
            change = self._surroundings() ^ self._before
            self.ledger.fault("something is left, or gone", f"{len(change)}: {sorted(change)[:4]}\n"
                              + self._lab.app.run("ss", "-Htunaoi", "exclude", "time-wait"))
        processes = command("ip", "netns", "pids", self._lab.app.name).split()
        if processes:
            self.ledger.fault("processes are left", command("ps", *processes))
        inode = os.fstat(self._lab.app.file.fileno()).st_ino
        pinned = [name for name in self._pinned() if str(inode) in name]
        if pinned:
            self.ledger.fault("programs are left", str(pinned))
        sockets = [name for name in os.listdir(self._lab.folder) if name.startswith("control")]
        if sockets:
            self.ledger.fault("files are left", str(sockets))

    # What is printed.

    def line(self):
        ledger, flows = self.ledger, self.ledger.flows
        kinds = {way: sum(count for key, count in flows.items() if key.endswith(way))
                 for way in ("native", "relayed", "trouble")}
        held = f", at rest {self.rests[-1][1] >> 10} KiB, {self.rests[-1][2]} descriptors" if (
            self.rests) else ""
        return (f"{ledger.name}: {kinds['native']} flows native, {kinds['relayed']} relayed, "
                f"{kinds['trouble']} ended by trouble; {ledger.bytes >> 20} MiB right; "
                f"{sum(ledger.events.values())} events, {sum(ledger.faults.values())} faults{held}")

    def table(self):
        for title, counts in (("flows", self.ledger.flows), ("events", self.ledger.events),
                              ("faults", self.ledger.faults)):
            for key, count in sorted(counts.items()):
                yield f"  {self.ledger.name:8} {title:7} {key:60} {count:9}"
        for when, resident, descriptors in self.rests:
            yield (f"  {self.ledger.name:8} at rest {when - self.rests[0][0]:8.0f} s "
                   f"{resident >> 10:9} KiB {descriptors:5} descriptors")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("minutes", nargs="?", type=float, default=30)
    parser.add_argument("--without", action="append", default=[], metavar="WHAT",
                        help="kills, ends, stops, sleeps, flushes, attacks, proxies, or a kind of flow")
    options = parser.parse_args()
    os.umask(0o022)  # other users' programs are among ours
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # the namespaces go with us
    without = set(options.without)
    soaks = [Soak("killed", True, without), Soak("living", False, without)]
    begin = time.monotonic()
    deadline = begin + 60 * options.minutes
    for soak in soaks:
        soak.begin(deadline, min(60, 5 * options.minutes))
    while time.monotonic() < deadline:
        time.sleep(min(60, max(0, deadline - time.monotonic())))
        print(f"{(time.monotonic() - begin) / 60:.0f} min")
        for soak in soaks:
            print("  " + soak.line(), flush=True)
    for soak in soaks:
        soak.end()
    print("at the end")
    for soak in soaks:
        print("\n".join(soak.table()))
    examples = [example for soak in soaks for example in soak.ledger.examples]
    print("\n".join(["faults:", *examples]) if examples else "nothing lost, nothing left, memory flat")
    sys.exit(1 if examples else 0)


if __name__ == "__main__":
    main()
