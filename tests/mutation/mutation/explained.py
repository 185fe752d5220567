# SPDX-License-Identifier: Apache-2.0
"""The list of mutants that no test can tell from the daemon, with reasons.

An entry is known by the file, the function and the text of the lines, not by
their numbers, so that it lasts as long as what it speaks of. Where a function
has the same text in several places, it says which one it means and of how
many, so that no place is excused by the reason of another.
"""

import re
from dataclasses import dataclass

from .faults import squeezed

PLACE = re.compile(r"^@@ (?P<number>\d+) of (?P<places>\d+) @@$")
HEADING = re.compile(r"^## `(?P<path>[^`]+)`(?:, `(?P<function>[^`]+)`)?$")

SHAPE = "a fault is a line with - and one with +"


@dataclass
class Entry:
    path: str
    function: str
    before: str
    after: str
    reason: str
    line: int
    number: int = 1
    places: int = 1

    @property
    def text(self):
        return (self.path, self.function, self.before, self.after)

    @property
    def key(self):
        return (*self.text, self.number, self.places)


class ListError(Exception):
    """What is wrong with the list, as one line."""


def key_of(mutant):
    text = (mutant.path, mutant.function, mutant.before, mutant.after)
    return (*text, mutant.number, mutant.places)


def refuse_ambiguous(entries, mutants, name):
    """Raises an error for an entry that fits several places without telling
    them apart."""
    places = {key_of(mutant)[:4]: mutant.places for mutant in mutants}
    for entry in entries:
        number = places.get(entry.text, 1)
        if number > 1 and entry.places != number:
            raise ListError(
                f"{name}:{entry.line}: `{entry.before}` is there {number} times: "
                f"put @@ 1 of {number} @@ or another number above the fault"
            )


def entries_of(text, name):
    """Reads a list: a heading for each function, below it the faults as
    two-line diffs, the line `@@ N of M @@` above those that are the N-th of M
    places alike; a reason stands behind those that share it."""
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
                faults = faults_of(diff, place, name, number)
                unexplained += faults
                entries += faults
                diff = None
            elif line.strip():
                diff.append((number, line))
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


def faults_of(lines, heading, name, end):
    """The entries of one diff that ends in line `end`, without their reason."""
    found = []
    place = {}
    lines = iter(lines)
    for number, line in lines:
        if match := PLACE.match(line):
            place = {key: int(value) for key, value in match.groupdict().items()}
            continue
        _, after = next(lines, (0, " "))
        if line[0] != "-" or after[0] != "+":
            raise ListError(f"{name}:{number}: {SHAPE}")
        texts = squeezed(line[1:]), squeezed(after[1:])
        found.append(Entry(*heading, *texts, "", number, **place))
        place = {}
    if place or not found:
        raise ListError(f"{name}:{end}: {SHAPE}")
    return found
