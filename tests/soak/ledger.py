"""What may become of a flow, by whose it is and by what happened to the daemon meanwhile."""

import collections
import threading
import time

#: How long after the end of an event flows may still find out about it, in seconds.
AFTERMATH = 2
#: What ends taken flows. An end in order is only what follows from an order; a killed daemon says
#: nobody that everything has come.
IN_ORDER, ABRUPT = {"stop", "sleep", "terminate"}, {"kill", "flush", "bad proxy"}
#: How many faults of a kind are told in full.
EXAMPLES = 4


class Ledger:
    """Events, and the flows that are judged by them. Flows of the application "taken" are to be
    relayed whenever the daemon runs, those of "left" never; those of "changing" may be either."""

    def __init__(self, name):
        self.name = name
        self.flows = collections.Counter()
        self.events = collections.Counter()
        self.faults = collections.Counter()
        self.examples = []
        self.bytes = 0
        self._spans = []  # (kind, begin, end)
        self._guards = []  # (begin, end, whether datagrams are taken, too)
        self._lock = threading.Lock()

    # What happens.

    def event(self, kind):
        """A context: what happens in it, to whatever flow there is."""
        return _Span(self, kind)

    def begin_guard(self, takes_datagrams):
        """New flows of "taken" are relayed from now on."""
        with self._lock:
            self._guards.append([time.monotonic(), None, takes_datagrams])

    def end_guard(self):
        with self._lock:
            if self._guards and self._guards[-1][1] is None:
                self._guards[-1][1] = time.monotonic()

    def fault(self, kind, text=""):
        with self._lock:
            self.faults[kind] += 1
            if self.faults[kind] <= EXAMPLES:
                self.examples.append(f"{self.name}: {kind}: {text}")
                print(self.examples[-1], flush=True)

    # What became of it.

    def judge_application(self, application, records):
        for begin, known, end, kind, outcome, is_native, count, detail in records:
            self.bytes += count
            met = self._met(begin, end)
            what = f"{application}, {kind}, {outcome}, {end - begin:.1f} s, {detail}, {sorted(met)}"
            protocol = "udp" if kind in ("udp", "quic") else "tcp"
            verdict = self._verdict(application, kind, outcome, detail, met)
            if verdict:
                self.fault(verdict, what)
            elif outcome in ("whole", "again"):
                way = "native" if is_native else "relayed"
                self.flows[f"{application} {protocol} {way}"] += 1
            else:
                self.flows[f"{application} {protocol} ended by trouble"] += 1
            if is_native is None or outcome == "wrong":
                continue
            if application == "left" and not is_native:
                self.fault("a flow was relayed that is to be left", what)
            if application == "taken" and is_native and self._is_guarded(begin, known, protocol):
                self.fault("a flow went past the daemon", what)

    def judge_server(self, records):
        for begin, end, application, act, outcome, detail in records:
            if outcome == "whole" or application == "unknown" and outcome != "wrong":
                continue
            met = self._met(begin, end)
            if self._verdict(application, act, outcome, detail, met):
                self.fault("at the server: " + self._verdict(application, act, outcome, detail, met),
                           f"{application}, {act}, {outcome}, {end - begin:.1f} s, {detail}, "
                           f"{sorted(met)}")

    @staticmethod
    def _verdict(application, kind, outcome, detail, met):
        """What is wrong about it; empty when nothing is."""
        if outcome == "whole":
            return ""
        if outcome == "wrong":
            return "other bytes came than were sent"
        if outcome == "silent":
            return "a flow waits for what never comes"
        if outcome == "again":
            # The packets that a killed daemon held are lost, those that a foreign program has the
            # kernel drop, and those that have no route.
            excuses = met & {"kill", "no hooks", "no routes"} if application == "left" else met
            return "" if excuses else "datagrams were lost"
        if application == "left":
            # Who removes the machine's routes interrupts everybody, us or not.
            is_foreign = "no routes" in met and "unreachable" in detail
            return "" if is_foreign else "a flow failed that is to be left"
        if kind == "quic" and "ECONNREFUSED" in detail:
            return ""
        if outcome == "short":
            return "" if met & IN_ORDER else "an end in order came before the last byte"
        return "" if met & (IN_ORDER | ABRUPT) else "a taken flow failed"

    def _met(self, begin, end):
        """The kinds of events of that time."""
        with self._lock:
            return {kind for kind, since, until in self._spans
                    if since <= end and begin <= (until or end) + AFTERMATH}

    def _is_guarded(self, begin, known, protocol):
        with self._lock:
            return any(since <= begin and known <= (until or known)
                       and (protocol == "tcp" or takes_datagrams)
                       for since, until, takes_datagrams in self._guards)

    def forget(self, horizon):
        """Events that ended before this time meet no flow any more."""
        with self._lock:
            self._spans = [span for span in self._spans if not span[2] or span[2] > horizon]
            self._guards = [guard for guard in self._guards if not guard[1] or guard[1] > horizon]


class _Span:
    def __init__(self, ledger, kind):
        self._ledger, self._span = ledger, [kind, None, None]

    def __enter__(self):
        self._span[1] = time.monotonic()
        with self._ledger._lock:
            self._ledger.events[self._span[0]] += 1
            self._ledger._spans.append(self._span)

    def __exit__(self, *_):
        self._span[2] = time.monotonic()
