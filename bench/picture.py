"""A picture of the results, for a page that may be light or dark."""

import html

import cases
import report

#: (case, mode) of each panel; what it shows is the case's first metric.
PANELS = [("bulk-down-8", "direct"), ("bulk-down-8", "connect"),
          ("bulk-up-8", "direct"), ("bulk-up-8", "connect"),
          ("flows", "direct"), ("flows", "connect"),
          ("setup", "direct"), ("setup", "connect"),
          ("trip", "direct"), ("memory", "direct"),
          ("left", "left"), ("datagram-echo", "direct")]
WIDTH, PANEL, LABEL, BAR, GAP = 860, 410, 120, 16, 6
HEAD, FOOT, TITLE = 34, 30, 40
OURS, THEIRS, NOBODY = "#e0792b", "#6c8ebf", "#9aa0a6"
TEXT, FAINT = "#7d858f", "#8b939c"


def _text(x, y, text, size=12, anchor="start", fill=TEXT, weight="normal"):
    return (f'<text x="{x:.0f}" y="{y:.0f}" font-size="{size}" text-anchor="{anchor}" '
            f'fill="{fill}" font-weight="{weight}">{html.escape(text)}</text>')


def _panel(results, name, mode, x, y):
    """Its elements and its height; none when there is nothing to show."""
    case = next(case for case in cases.ALL if case.name == name)
    key, metric = next(iter(case.metrics.items()))
    bars = [(column, report.median(results, name, column, key)) for column in report.COLUMNS[mode]]
    bars = [(column, value) for column, value in bars if value]
    if not any(column == report.SUBJECTS[mode] for column, _ in bars):
        return [], 0
    title = f"{case.title}{f', {metric.title}' if metric.title else ''}, {metric.unit}"
    elements = [_text(x, y + 16, title[0].upper() + title[1:], 13, weight="bold")]
    notes = [] if mode == "left" else [report.TITLES[mode][0].lower() + report.TITLES[mode][1:]]
    notes += [] if metric.unit.endswith("/s") else ["less is better"]
    elements.append(_text(x, y + 32, "; ".join(notes), 11, fill=FAINT))
    longest = max(value for _, value in bars)
    room = PANEL - LABEL - 70
    for index, (column, value) in enumerate(bars):
        top = y + TITLE + index * (BAR + GAP)
        is_ours = column == report.SUBJECTS[mode]
        colour = OURS if is_ours else NOBODY if column.startswith("none") else THEIRS
        length = max(1, value / longest * room)
        elements += [
            _text(x + LABEL - 8, top + 12, column, anchor="end", weight="bold" if is_ours else "normal"),
            f'<rect x="{x + LABEL}" y="{top}" width="{length:.1f}" height="{BAR}" rx="2" '
            f'fill="{colour}"/>',
            _text(x + LABEL + length + 6, top + 12, f"{value:,.{metric.digits}f}")]
    return elements, TITLE + len(bars) * (BAR + GAP) + 18


def draw(results, path):
    elements = []
    tops = [HEAD, HEAD]  # of the two columns: directly, and all else
    for name, mode in PANELS:
        column = 0 if mode == "direct" and name not in ("memory", "datagram-echo") else 1
        shown, height = _panel(results, name, mode, 10 + column * (PANEL + 20), tops[column])
        elements += shown
        tops[column] += height
    height = max(tops) + FOOT
    machine = results["machine"]
    versions = ", ".join(f"{name} {version}" for name, version in machine["versions"].items())
    elements.insert(0, _text(10, 20, f"Client, relay and server on {results['cpus']}: the figures "
                             "are what all the work together costs", 13))
    elements.append(_text(10, height - 10, f"{machine['cpu']}, Linux {machine['kernel']}, {versions}; "
                          f"medians of {results['rounds']} rounds", 11, fill=FAINT))
    with open(path, "w") as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
                   f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif">\n')
        file.write("\n".join(elements))
        file.write("\n</svg>\n")
