"""The cases: what is measured, of whom, and in which units."""

from places import ECHO_PORT, DESTINATIONS, SINK_PORT, Client, Found

GIGA = 1e9


class Metric:
    def __init__(self, title, unit, digits=1, less_is_better=False, compared=False):
        self.title, self.unit, self.digits = title, unit, digits
        self.less_is_better, self.compared = less_is_better, compared


class Case:
    """`metrics` of a measurement by name; the first one is the case's own, the others explain it."""

    modes = ("direct", "connect")

    def __init__(self, name, title):
        self.name, self.title = name, title

    def takes(self, contestant):
        return contestant.mode in self.modes

    def measure(self, lab, contestant, seconds):
        """Values of the metrics, and whose time it took."""
        raise NotImplementedError


class Bulk(Case):
    metrics = {"rate": Metric("", "Gbit/s"),
               "cost": Metric("relay's CPU", "s/GB", 3, less_is_better=True)}

    def __init__(self, direction, flows):
        super().__init__(f"bulk-{direction}-{flows}",
                         f"bulk {direction}, {flows} flow{'s' if flows > 1 else ''}")
        self._words = (f"bulk-{direction}", "--flows", flows)
        self._warm_up = 0.3 if flows < 100 else 1

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, *self._words, "--seconds", seconds, "--warm-up",
                       self._warm_up).finish()
        return {"rate": found["bytes"] * 8 / GIGA / found.our_seconds,
                "cost": found.relay_seconds / (found["bytes"] / GIGA)}, found


class Storm(Case):
    metrics = {"rate": Metric("", "/s", 0),
               "cost": Metric("relay's CPU", "s/1000", 4, less_is_better=True),
               "p50": Metric("a flow's life, p50", "µs", 0, less_is_better=True),
               "p99": Metric("a flow's life, p99", "µs", 0, less_is_better=True)}

    def __init__(self, name="flows", title="new flows, 32 at a time"):
        super().__init__(name, title)

    def measure(self, lab, contestant, seconds):
        found = Client(lab, contestant, "storm", "--flows", 32, "--size", 200, "--seconds", seconds,
                       ).finish()
        values = {"rate": found["flows"] / found.our_seconds,
                  "cost": found.relay_seconds / (found["flows"] / 1000 or 1),
                  "p50": found["flow_p50"], "p99": found["flow_p99"]}
        return values, found


ALL = [Bulk("down", 1), Bulk("down", 8), Bulk("up", 1), Bulk("up", 8), Storm()]
