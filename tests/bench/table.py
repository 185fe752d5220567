# SPDX-License-Identifier: Apache-2.0
"""Results: medians with their spread, ratios, and the tables of them.

A measurement is a list of numbers, one a run; what is kept of it is its median
and its spread, told by the first and the third quartile. Where the daemon
stands beside a floor, both were measured in the same round of runs, and the
ratio is that of the medians.
"""

import statistics
from dataclasses import asdict, dataclass


@dataclass
class Row:
    section: str
    group: str
    what: str
    unit: str
    daemon: dict
    floor: dict | None = None
    ratio: float | None = None
    goal: str | None = None
    met: bool | None = None


def summary(values):
    return {
        "median": statistics.median(values),
        "quartiles": quartiles(values),
        "least": min(values),
        "most": max(values),
        "runs": len(values),
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

    def add(self, group, what, unit, daemon, floor=None, ratio_at_most=None, at_most=None):
        """Adds a row of measurements; ratio_at_most and at_most are goals for
        the ratio and the daemon's median."""
        row = Row(self.section, group, what, unit, summary(daemon))
        if floor:
            row.floor = summary(floor)
            below = row.floor["median"]
            row.ratio = row.daemon["median"] / below if below else None
        if ratio_at_most is not None:
            row.goal = f"ratio ≤ {ratio_at_most:g}"
            row.met = row.ratio is not None and row.ratio <= ratio_at_most
        elif at_most is not None:
            row.goal = f"≤ {at_most:g} {unit}"
            row.met = row.daemon["median"] <= at_most
        self.rows.append(row)
        self.say(" ".join(_cells(row)))

    def sort(self, sections):
        """Into the order of sections, whenever each was measured."""
        self.rows.sort(key=lambda row: sections.index(row.section))

    def as_json(self):
        return [asdict(row) for row in self.rows]

    def as_text(self):
        """As Markdown: read well in a terminal, and pasted as it is."""
        head = ["What", "Unit", "Daemon", "Floor", "Ratio", "Goal"]
        groups = {}
        for row in self.rows:
            groups.setdefault(row.group, []).append(_cells(row))
        tables = [(group, head, rows) for group, rows in groups.items()]
        return "\n".join(map(_table, [*tables, *self._flavours()]))

    def _flavours(self):
        """The one table of what was measured with -Os and with -O2."""
        small = {(row.group, row.what): row for row in self.rows}
        rows = []
        for row in self.rows:
            group = row.group.removesuffix(", -O2")
            other = small.get((f"{group}, -Os", row.what))
            if group == row.group or not other:
                continue
            below = other.daemon["median"]
            rows.append([
                f"{group}: {row.what}", row.unit, _spread(other.daemon), _spread(row.daemon),
                f"{row.daemon['median'] / below:.2f}" if below else "",
            ])  # fmt: skip
        if rows:
            yield "The daemon with -Os and with -O2", ["What", "Unit", "-Os", "-O2", "Ratio"], rows


def _table(table):
    title, head, rows = table
    widths = [max(map(len, column)) for column in zip(head, *rows)]
    lines = [f"**{title}**", "", _line(head, widths),
             _line(["-" * width for width in widths], widths)]  # fmt: skip
    return "\n".join(lines + [_line(row, widths) for row in rows]) + "\n"


def _cells(row):
    met = {None: "", True: " met", False: " MISSED"}[row.met]
    return [
        row.what,
        row.unit,
        _spread(row.daemon),
        _spread(row.floor) if row.floor else "",
        f"{row.ratio:.2f}" if row.ratio is not None else "",
        (row.goal or "") + met,
    ]


def _line(cells, widths):
    padded = (cell.ljust(width) for cell, width in zip(cells, widths))
    return "| " + " | ".join(padded) + " |"


def _number(value):
    if value == int(value) and abs(value) < 1e7:
        return str(int(value))
    digits = 0 if abs(value) >= 1000 else 1 if abs(value) >= 10 else 2
    return f"{value:.{digits}f}"


def _spread(values):
    middle = _number(values["median"])
    low, high = map(_number, values["quartiles"])
    return middle if low == high else f"{middle} ({low}–{high})"
