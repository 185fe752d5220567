# SPDX-License-Identifier: Apache-2.0
"""Results: medians with their spread, ratios, and the table of them.

A measurement is a list of numbers, one a run; its spread is told by the first
and the third quartile. Where the daemon stands beside a
floor, both were measured in the same round of runs, and the ratio is that of
the medians.
"""

import statistics
from dataclasses import dataclass


@dataclass
class Row:
    group: str
    what: str
    unit: str
    daemon: list
    floor: list | None = None
    goal: str = ""
    met: bool | None = None

    @property
    def ratio(self):
        if not self.floor:
            return None
        below = statistics.median(self.floor)
        return statistics.median(self.daemon) / below if below else None

    def as_json(self):
        return {
            "group": self.group, "what": self.what, "unit": self.unit,
            "daemon": summary(self.daemon),
            "floor": summary(self.floor) if self.floor else None,
            "ratio": self.ratio, "goal": self.goal or None, "met": self.met,
        }  # fmt: skip


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
    """Rows in the order in which they were measured."""

    def __init__(self, say=None):
        self.rows = []
        self.say = say or (lambda line: None)

    def add(self, group, what, unit, daemon, floor=None, ratio_at_most=None,
            at_most=None, within=None):
        """ratio_at_most and at_most are goals for the ratio and the daemon's
        median; within is (goal as text, whether it is met)."""
        row = Row(group, what, unit, daemon, floor)
        if ratio_at_most is not None:
            row.goal = f"ratio ≤ {ratio_at_most:g}"
            row.met = row.ratio <= ratio_at_most
        elif at_most is not None:
            row.goal = f"≤ {at_most:g} {unit}"
            row.met = statistics.median(daemon) <= at_most
        elif within is not None:
            row.goal, row.met = within
        self.rows.append(row)
        self.say(" ".join(_cells(row)))

    def as_json(self):
        return [row.as_json() for row in self.rows]

    def as_text(self):
        """As Markdown: read well in a terminal, and pasted as it is."""
        head = ["What", "Unit", "Daemon", "Floor", "Ratio", "Goal"]
        lines = []
        group = None
        rows = [_cells(row) for row in self.rows]
        widths = [max(map(len, column)) for column in zip(head, *rows)]
        for row, cells in zip(self.rows, rows):
            if row.group != group:
                group = row.group
                lines += ["", f"**{group}**", "", _line(head, widths),
                          _line(["-" * width for width in widths], widths)]  # fmt: skip
            lines.append(_line(cells, widths))
        return "\n".join(lines[1:]) + "\n"


def _cells(row):
    met = {None: "", True: " met", False: " MISSED"}[row.met]
    return [
        row.what,
        row.unit,
        _spread(row.daemon),
        _spread(row.floor) if row.floor else "",
        f"{row.ratio:.2f}" if row.ratio is not None else "",
        row.goal + met,
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
    middle = _number(statistics.median(values))
    low, high = map(_number, quartiles(values))
    return middle if low == high else f"{middle} ({low}–{high})"
