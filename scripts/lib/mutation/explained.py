# SPDX-License-Identifier: Apache-2.0
"""The list of mutants that no test can tell from the daemon, with reasons.

An entry is known by the file, the function and the text of the lines, not by
their numbers, so that it lasts as long as what it speaks of.
"""

import re
from dataclasses import dataclass

from .faults import squeezed

HEADING = re.compile(r"^## `(?P<path>[^`]+)`(?:, `(?P<function>[^`]+)`)?$")


@dataclass
class Entry:
    path: str
    function: str
    before: str
    after: str
    reason: str
    line: int

    @property
    def key(self):
        return (self.path, self.function, self.before, self.after)


class ListError(Exception):
    """What is wrong with the list, as one line."""


def key_of(mutant):
    return (mutant.path, mutant.function, mutant.before, mutant.after)


def entries_of(text, name):
    """Reads a list: a heading for each function, below it the faults as
    two-line diffs; a reason stands behind those that share it."""
    entries = []
    unexplained = []
    place = None
    diff = None
    reason = []

    def give_reason():
        told = squeezed(" ".join(reason))
        reason.clear()
        if told:
            for entry in unexplained:
                entry.reason = told
            unexplained.clear()

    for number, line in enumerate(text.splitlines(), 1):
        heading = HEADING.match(line)
        if diff is not None:
            if line.startswith("```"):
                add_diff(diff, place, unexplained, entries, f"{name}:{number}")
                diff = None
            else:
                diff.append(line)
        elif heading:
            give_reason()
            if unexplained:
                break
            place = (heading["path"], heading["function"] or "")
        elif line == "```diff":
            give_reason()
            diff = []
            if place is None:
                raise ListError(f"{name}:{number}: a fault without a heading above")
        elif place is not None:
            reason.append(line)
    give_reason()
    if unexplained:
        entry = unexplained[0]
        raise ListError(f"{name}:{entry.line}: a fault without a reason below")
    return entries


def add_diff(lines, place, unexplained, entries, where):
    line = int(where.rsplit(":", 1)[1])
    pairs = [text for text in lines if text.strip()]
    for before, after in zip(pairs[::2], pairs[1::2]):
        if before[0] != "-" or after[0] != "+":
            raise ListError(f"{where}: a fault is a line with - and one with +")
        entry = Entry(*place, squeezed(before[1:]), squeezed(after[1:]), "", line)
        unexplained.append(entry)
        entries.append(entry)
    if len(pairs) % 2 or not pairs:
        raise ListError(f"{where}: a fault is a line with - and one with +")
