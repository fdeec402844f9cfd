"""Measures tandor-provider beside its peers; scripts/bench builds and starts it."""

import argparse
import fcntl
import json
import os
import resource
import signal
import sys
import time

import cases
import contestants
import picture
import report
from places import Failed, Lab, Placement, pause

#: Of our CPUs' time; a measurement of which others took more is repeated.
MOST_FOREIGN = 0.05
REPETITIONS = 2


def parse(arguments):
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    last_cpu = str(max(os.sched_getaffinity(0)))
    names = [case.name for case in cases.ALL]
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--cases", help=f"some of {','.join(names)}")
    parser.add_argument("--contestants", help=f"some of {','.join(contestants.NAMES)}")
    parser.add_argument("--before", metavar="PROVIDER",
                        help="another tandor-provider, to be measured beside ours")
    parser.add_argument("--idle", type=int, default=10_000, metavar="FLOWS",
                        help="so many are open where idle ones are, if the descriptors allow it")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=1, help="that one measurement takes")
    parser.add_argument("--quick", action="store_true", help="2 rounds of short measurements")
    parser.add_argument("--cpus", default=last_cpu,
                        help="CPUs for all, or CLIENT/RELAY/SERVER; one CPU for all by default")
    parser.add_argument("--json", metavar="FILE")
    parser.add_argument("--svg", metavar="FILE")
    options = parser.parse_args(arguments)
    if options.quick:
        options.idle = min(options.idle, 2000)
        options.rounds, options.seconds = min(options.rounds, 2), min(options.seconds, 0.3)
    for option, known in (("cases", names), ("contestants", contestants.NAMES)):
        default = [name for name in known if options.before or name not in contestants.BEFORE]
        chosen = (getattr(options, option) or ",".join(default)).split(",")
        for name in set(chosen) - set(known):
            parser.error(f"--{option}: there is no {name}")
        setattr(options, option, chosen)
    try:
        options.placement = Placement(options.cpus)
    except ValueError as error:
        parser.error(f"--cpus: {error}")
    return options


def measure(lab, case, contestant, seconds, repetitions):
    """One sample: the values of the measurement that was disturbed least."""
    best = None
    for _ in range(1 + repetitions):
        pause()
        values, found = case.measure(lab, contestant, seconds)
        sample = {"values": values}
        if not found:  # nothing that hangs on CPU time
            return sample
        sample.update(foreign=found.foreign, elsewhere=found.elsewhere, found=found.members)
        if best is None or sample["foreign"] < best["foreign"]:
            best = sample
        if best["foreign"] <= MOST_FOREIGN:
            break
    best["disturbed"] = best["foreign"] > MOST_FOREIGN
    return best


def measure_all(lab, case, working, options, results):
    """One sample of each contestant."""
    samples = results["samples"].setdefault(case.name, {})
    with case.surroundings():
        for contestant in working.values():
            if not case.takes(contestant):
                continue
            try:
                sample = measure(lab, case, contestant, options.seconds,
                                 0 if options.quick else REPETITIONS)
            except (Failed, AssertionError, OSError) as error:
                sample = {"failed": str(error)}
                say(f"   {contestant.name}: {error}")
            samples.setdefault(contestant.name, []).append(sample)


def run(options, lab, results):
    chosen = [case for case in cases.ALL if case.name in options.cases]
    placements = {False: options.placement, True: options.placement.widened()}
    working = {}
    for is_wide in sorted({case.is_wide for case in chosen}):
        if not placements[is_wide]:
            say("== there is no other CPU: what needs two is not measured")
            continue
        say(f"== starting and checking the contestants on {placements[is_wide]}")
        working[is_wide], failed = contestants.start_all(lab, placements[is_wide],
                                                         options.contestants)
        results["not_measured"].update(failed)
        for name, reason in failed.items():
            say(f"   {name} is not measured: {reason}")
    for number in range(options.rounds):
        for case in chosen:
            most = 1 if options.quick and case.is_growth else case.most_rounds
            if number >= most or case.is_wide not in working:
                continue
            say(f"== round {number + 1} of {options.rounds}: {case.title}")
            measure_all(lab, case, working[case.is_wide], options, results)


def say(text):
    print(text, file=sys.stderr)


def alone():
    """A file that is locked for as long as it is open: two runs at once would measure each other."""
    lock = open(__file__)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        say("== another run is on its way; waiting for its end")
        fcntl.flock(lock, fcntl.LOCK_EX)
    return lock


def interrupted(*_):
    raise KeyboardInterrupt


def main():
    options = parse(sys.argv[1:])
    if os.geteuid() != 0:
        sys.exit("scripts/bench needs root: it makes network namespaces")
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    lock = alone()
    results = {"machine": report.machine(), "time": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
               "rounds": options.rounds, "seconds": options.seconds, "cpus": str(options.placement),
               "not_measured": {}, "samples": {}}
    lab = Lab(options.build, options.placement, options.idle, options.before)
    try:
        run(options, lab, results)
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        results["interrupted"] = True
    finally:
        lab.close()
        lock.close()
    report.table(results, sys.stdout)
    if options.json:
        with open(options.json, "w") as file:
            json.dump(results, file, indent=1)
    if options.svg:
        picture.draw(results, options.svg)
    sys.exit(130 if "interrupted" in results else bool(report.our_failures(results)))


main()
