"""What people read of the results."""

import os
import platform
import re
import shutil
import statistics
import subprocess

import cases
import contestants

COLUMNS = {"direct": ["none", "tandor", "before", "haproxy", "haproxy-splice", "nginx"],
           "left": ["none", "tandor-left", "before-left"],
           "connect": ["none-connect", "tandor-connect", "before-connect", "redsocks",
                       "redsocks-splice"]}
TITLES = {"direct": "Directly", "connect": "Through an HTTP proxy",
          "left": "An application that is not taken"}
#: Whose ratios to the others are shown.
SUBJECTS = {"direct": "tandor", "connect": "tandor-connect", "left": "tandor-left"}


def machine():
    with open("/proc/cpuinfo") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    versions = {}
    for name, option in (("haproxy", "-v"), ("nginx", "-v"), ("redsocks", "-v")):
        path = shutil.which(name, path="/usr/sbin:/usr/bin")
        if path:
            said = subprocess.run([path, option], capture_output=True, text=True)
            version = re.search(r"\d+(\.\d+)+", said.stdout + said.stderr)
            versions[name] = version[0] if version else "unknown"
    return {"kernel": platform.release(), "cpu": model[1] if model else platform.machine(),
            "cpus": os.cpu_count(), "versions": versions}


def our_failures(results):
    """Of what is not a peer's."""
    ours = set(SUBJECTS.values()) | {"none", "none-connect"}
    return [name for name in results["not_measured"] if name in ours] + [
        sample["failed"] for of_case in results["samples"].values()
        for name, samples in of_case.items() if name in ours
        for sample in samples if "failed" in sample]


def values(results, case, contestant, metric):
    samples = results["samples"].get(case, {}).get(contestant, [])
    return [sample["values"][metric] for sample in samples if metric in sample.get("values", {})]


def median(results, case, contestant, metric):
    found = values(results, case, contestant, metric)
    return statistics.median(found) if found else None


def _cell(results, case, contestant, name, metric):
    found = values(results, case.name, contestant, name)
    if not found:
        return "-"
    middle = statistics.median(found)
    spread = (max(found) - min(found)) / 2 / middle * 100 if middle else 0
    samples = results["samples"][case.name][contestant]
    mark = "~" if any(sample.get("disturbed") for sample in samples) else ""
    return f"{mark}{middle:,.{metric.digits}f} ±{spread:.0f}%"


def _rows(results, mode, columns):
    """Lines of cells: a case's metrics, and ours as ratios to each other's."""
    subject = SUBJECTS[mode]
    for case in cases.ALL:
        of_case = results["samples"].get(case.name, {})
        if mode not in case.modes or not set(columns) & set(of_case):
            continue
        for index, (name, metric) in enumerate(case.metrics.items()):
            title = case.title if index == 0 else "  "
            if metric.title:
                title += metric.title if index else f", {metric.title}"
            cells = [_cell(results, case, column, name, metric) for column in columns]
            if set(cells) == {"-"}:
                continue
            yield [f"{title}, {metric.unit}", *cells]
            ours = median(results, case.name, subject, name)
            theirs = [median(results, case.name, column, name) for column in columns]
            if ours and (index == 0 or metric.compared):
                yield [f"    {subject} to it", *(
                    f"{ours / value:.2f}" if value and column != subject else ""
                    for column, value in zip(columns, theirs))]


def _growth(results, columns):
    for title, name, base in cases.GROWTH:
        pairs = [(median(results, name, column, "rate"), median(results, base, column, "rate"))
                 for column in columns]
        if any(grown and small for grown, small in pairs):
            yield [title, *(f"{grown / small:.2f}" if grown and small else "-"
                            for grown, small in pairs)]


def _print(rows, output):
    widths = [max(len(row[index]) for row in rows) for index in range(len(rows[0]))]
    for row in rows:
        cells = [row[0].ljust(widths[0])]
        cells += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells).rstrip(), file=output)


def table(results, output):
    machine = results["machine"]
    print(f"\n{machine['cpu']}, {machine['cpus']} CPUs, Linux {machine['kernel']}; "
          + ", ".join(f"{name} {version}" for name, version in machine["versions"].items()),
          file=output)
    print(f"client, relay and server on {results['cpus']}; medians of {results['rounds']} rounds of "
          f"{results['seconds']:g} s, and half of the way from least to most; ratios are ours to "
          "theirs", file=output)
    measured = {mode: [column for column in columns if any(
        column in results["samples"].get(case.name, {}) for case in cases.ALL if mode in case.modes)]
        for mode, columns in COLUMNS.items()}
    for mode, columns in measured.items():
        rows = list(_rows(results, mode, columns))
        if rows:
            print(file=output)
            _print([[TITLES[mode], *columns], *rows], output)
    columns = measured["direct"] + measured["connect"]
    rows = list(_growth(results, columns))
    if rows:
        print(file=output)
        _print([["Growth: rates as ratios", *columns], *rows], output)
    print(file=output)
    for name, reason in results.get("not_measured", {}).items():
        print(f"not measured: {name}: {reason}", file=output)
    samples = [sample for of_case in results["samples"].values() for of_one in of_case.values()
               for sample in of_one]
    failures = [sample["failed"] for sample in samples if "failed" in sample]
    if failures:
        print(f"{len(failures)} measurements failed, the first one: {failures[0]}", file=output)
    disturbed = sum(sample.get("disturbed", False) for sample in samples)
    if disturbed:
        print(f"~ {disturbed} of {len(samples)} measurements were disturbed: others took CPU time, "
              "which is taken off", file=output)
    elsewhere = [sample["elsewhere"] for sample in samples if "elsewhere" in sample]
    if elsewhere:
        print(f"others' use of the other CPUs: {statistics.median(elsewhere):.0%} at the median",
              file=output)
