# SPDX-License-Identifier: Apache-2.0
"""Results: medians with their spread, ratios, and the tables of them.

A measurement is a list of numbers, one a run; what is kept of it is its median
and its spread, told by the first and the third quartile. Where the daemon
stands beside a baseline, both were measured in the same round of runs: there is a
ratio of each round, and of these, too, median and spread are kept. Goals are
for medians.
"""

import statistics
from dataclasses import asdict, dataclass


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


def summary(values, note=None):
    return {
        "median": statistics.median(values),
        "quartiles": quartiles(values),
        "least": min(values),
        "most": max(values),
        "runs": len(values),
        "note": note,
    }


def quartiles(values):
    """The first and the third: half of all runs lie between them."""
    if len(values) == 1:
        return [values[0], values[0]]
    first, _, third = statistics.quantiles(values, n=4, method="inclusive")
    return [first, third]


class Table:
    """Rows in the order in which they were measured, by sections, the parts of
    a measurement that can be made anew alone."""

    def __init__(self, rows=(), say=None):
        self.rows = [Row(**row) for row in rows]
        self.say = say or (lambda line: None)
        self.section = ""

    def begin(self, section):
        """What is added from now on is of this section, and all that it has."""
        self.section = section
        self.rows = [row for row in self.rows if row.section != section]

    def add(self, group, what, unit, daemon, baseline=None, ratio_at_most=None, at_most=None,
            daemon_note=None, baseline_note=None):
        """Adds a row of measurements, the baseline's in the same rounds as the
        daemon's; ratio_at_most and at_most are goals for the medians of the
        ratio and of the daemon. A note stands behind its measurements."""
        row = Row(self.section, group, what, unit, summary(daemon, daemon_note),
                  ratio_at_most=ratio_at_most, at_most=at_most)  # fmt: skip
        if baseline:
            row.baseline = summary(baseline, baseline_note)
            pairs = list(zip(daemon, baseline, strict=True))
            if all(baseline):
                row.ratio = summary([above / below for above, below in pairs])
        if ratio_at_most is not None:
            row.met = row.ratio is not None and row.ratio["median"] <= ratio_at_most
        elif at_most is not None:
            row.met = row.daemon["median"] <= at_most
        self._append(row)

    def add_unmeasured(self, group, what, unit, at_most=None):
        """Adds a row that says so, rather than none."""
        self._append(Row(self.section, group, what, unit, None, at_most=at_most))

    def _append(self, row):
        self.rows.append(row)
        self.say(" ".join(_cells(row)))

    def sort(self, sections):
        """Into the order of sections, whenever each was measured."""
        self.rows.sort(key=lambda row: sections.index(row.section))

    def as_json(self):
        return [asdict(row) for row in self.rows]

    def as_text(self):
        """As Markdown: read well in a terminal, and pasted as it is."""
        head = ["What", "Unit", "Daemon", "Baseline", "Ratio", "Goal"]
        groups = {}
        for row in self.rows:
            groups.setdefault(row.group, []).append(_cells(row))
        return "\n".join(_table(group, head, rows) for group, rows in groups.items())


def _table(title, head, rows):
    widths = [max(map(len, column)) for column in zip(head, *rows)]
    lines = [f"**{title}**", "", _line(head, widths),
             _line(["-" * width for width in widths], widths)]  # fmt: skip
    return "\n".join(lines + [_line(row, widths) for row in rows]) + "\n"


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


def _line(cells, widths):
    padded = (cell.ljust(width) for cell, width in zip(cells, widths))
    return "| " + " | ".join(padded) + " |"


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


def _verdict(value, limit, text):
    """The value, with as many digits as tell that it is above its limit."""
    told = text(value)
    digits = _digits(value)
    while limit is not None and value > limit >= float(told) and digits < 9:
        digits += 1
        told = text(value, digits)
    return told


def _spread(values, limit=None, text=_number):
    middle = _verdict(values["median"], limit, text)
    low, high = map(text, values["quartiles"])
    spread = middle if low == high else f"{middle} ({low}–{high})"
    return f"{spread}, {values['note']}" if values["note"] else spread
