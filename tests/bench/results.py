# SPDX-License-Identifier: Apache-2.0
"""Results: medians with their spread, ratios, and the tables of them.

A measurement is a list of numbers, one for each round. Its median and its
quartiles are kept. Daemon and baseline are measured in the same rounds: a ratio
is the median of the ratios of the rounds. Goals are for medians.
"""

import statistics
from dataclasses import asdict, dataclass

BEGIN = "<!-- measured: begin; scripts/bench --document writes this -->"
END = "<!-- measured: end -->"


def rounds(runs, **programs):
    """Calls each function once a round, another one first in each, so that a
    machine that gets slower gets slower for all of them.
    @return the results by name, those of a round at the same index"""
    results = {name: [] for name in programs}
    order = list(programs.items())
    for _ in range(runs):
        for name, program in order:
            results[name].append(program())
        order.append(order.pop(0))
    return results


def column(results, key):
    return [result[key] for result in results]


@dataclass
class Row:
    section: str
    group: str
    what: str
    unit: str
    daemon: dict | None  # None: not measured
    baseline: dict | None = None
    ratio: dict | None = None
    ratio_at_most: float | None = None
    at_most: float | None = None
    met: bool | None = None


def summary(values):
    quartiles = [values[0], values[0]]
    if len(values) > 1:
        first, _, third = statistics.quantiles(values, n=4, method="inclusive")
        quartiles = [first, third]
    return {"median": statistics.median(values), "quartiles": quartiles}


class Table:
    """Rows in the order in which they were measured. A section is what can be
    measured again alone."""

    def __init__(self, rows=(), say=lambda line: None):
        self.rows = [Row(**row) for row in rows]
        self.say = say
        self.section = ""

    def begin(self, section):
        """Starts a section; removes what it had."""
        self.section = section
        self.rows = [row for row in self.rows if row.section != section]

    def add(self, group, what, unit, daemon, baseline=None, ratio_at_most=None, at_most=None):
        """Adds a row of measurements; no measurements of the daemon for a row
        that says so. The goals are for the medians of ratio and daemon."""
        row = Row(self.section, group, what, unit, summary(daemon) if daemon else None,
                  ratio_at_most=ratio_at_most, at_most=at_most)  # fmt: skip
        if baseline:
            row.baseline = summary(baseline)
            pairs = list(zip(daemon, baseline, strict=True))
            if all(baseline):
                row.ratio = summary([above / below for above, below in pairs])
        if ratio_at_most is not None:
            row.met = row.ratio is not None and row.ratio["median"] <= ratio_at_most
        elif at_most is not None and row.daemon:
            row.met = row.daemon["median"] <= at_most
        self.rows.append(row)
        self.say(" ".join(_cells(row)))

    def sort(self, sections):
        self.rows.sort(key=lambda row: sections.index(row.section))

    def as_json(self):
        return [asdict(row) for row in self.rows]

    def as_text(self):
        """As Markdown that reads well in a terminal, too."""
        head = ["What", "Unit", "Daemon", "Baseline", "Ratio", "Goal"]
        groups = {}
        for row in self.rows:
            groups.setdefault(row.group, []).append(_cells(row))
        return "\n".join(_table(group, head, rows) for group, rows in groups.items())


def write_document(results, document):
    """Replaces what stands between the two marks in a document."""
    text = document.read_text(encoding="utf-8")
    before, begin, rest = text.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError(f"{document}: the lines that enclose results are missing:\n{BEGIN}\n{END}")
    measured = "\n".join([*_introduction(results), "", Table(results["rows"]).as_text()])
    document.write_text(f"{before}{BEGIN}\n\n{measured}\n{END}{after}", encoding="utf-8")


def _introduction(results):
    machine = results["machine"]
    yield (f"On {machine['processors']} processors, {machine['model']} ({machine['machine']}),"
           f" Linux {machine['kernel']}, built by {machine['compiler']}.")  # fmt: skip
    yield ""
    yield "| Group | Rounds | At commit | Load before it |"
    yield "|---|---|---|---|"
    for name, how in results["sections"].items():
        yield f"| {name} | {how['runs']} | {how['commit']} | {how['load']:.2f} |"


def _table(title, head, rows):
    widths = [max(map(len, column)) for column in zip(head, *rows)]
    lines = [f"**{title}**", "", _line(head, widths),
             _line(["-" * width for width in widths], widths)]  # fmt: skip
    return "\n".join(lines + [_line(row, widths) for row in rows]) + "\n"


def _line(cells, widths):
    padded = (cell.ljust(width) for cell, width in zip(cells, widths))
    return "| " + " | ".join(padded) + " |"


def _cells(row):
    return [
        row.what,
        row.unit,
        _spread(row.daemon, row.at_most) if row.daemon else "not measured",
        _spread(row.baseline) if row.baseline else "",
        _spread(row.ratio, row.ratio_at_most, _ratio) if row.ratio else "",
        _goal(row),
    ]


def _goal(row):
    if row.ratio_at_most is not None:
        goal = f"ratio ≤ {row.ratio_at_most:g}"
    elif row.at_most is not None:
        goal = f"≤ {row.at_most:g} {row.unit}"
    else:
        return ""
    return goal + {None: "", True: " met", False: " MISSED"}[row.met]


def _number(value, digits=None):
    if value == int(value) and abs(value) < 1e7:
        return str(int(value))
    if digits is None:
        digits = _digits(value)
    return f"{value:.{digits}f}"


def _digits(value):
    return 0 if abs(value) >= 1000 else 1 if abs(value) >= 10 else 2


def _ratio(value, digits=2):
    return f"{value:.{digits}f}"


def _spread(values, limit=None, text=_number):
    median = values["median"]
    shown = text(median)
    digits = _digits(median)
    # A missed goal needs the digits that show it.
    while limit is not None and median > limit >= float(shown) and digits < 9:
        digits += 1
        shown = text(median, digits)
    low, high = map(text, values["quartiles"])
    return shown if low == high else f"{shown} ({low}–{high})"
