# SPDX-License-Identifier: Apache-2.0
"""The list of mutants without effect, with reasons: tables in a document.

A row matches a mutant by file, function, kind and text, not by line number, so
it remains valid while other code changes. A text that ends in "…" matches what
begins so; "N of M" selects one of several places with the same text.
"""

import re
from dataclasses import dataclass

HEADING = re.compile(r"^## `([^`]+)`$")
CELL_END = re.compile(r"(?<!\\)\|")
PLACE = re.compile(r"(\d+) of (\d+)")


@dataclass
class Entry:
    path: str
    function: str
    kind: str
    text: str
    place: str
    reason: str
    line: int

    def fits(self, mutant):
        """Whether it matches a mutant, but for the place."""
        if (mutant.path, mutant.function, mutant.kind) != (self.path, self.function, self.kind):
            return False
        if self.text.endswith("…"):
            return mutant.description.startswith(self.text[:-1])
        return mutant.description == self.text


class ListError(Exception):
    """An error in the list, in one line."""


def entries_of(text, name):
    """Reads the rows | function | kind | text | place | reason | below a heading
    for each file."""
    entries = []
    path = None
    for number, line in enumerate(text.splitlines(), 1):
        if heading := HEADING.match(line):
            path = heading[1]
        elif path and line.startswith("| ") and not line.startswith("| Function "):
            cells = [cell.strip().replace("\\|", "|") for cell in CELL_END.split(line)[1:-1]]
            if len(cells) != 5 or not all((cells[1], cells[2], cells[4])):
                raise ListError(f"{name}:{number}: a row has a function, kind, text, place and reason")
            function, kind, changed, place, reason = (cell.strip("`") for cell in cells)
            entries.append(Entry(path, function, kind, changed, place, reason, number))
    return entries


def explained_ids(entries, mutants, name):
    """The ids of the mutants that the entries match, one each."""
    ids = set()
    for entry in entries:
        found = [mutant for mutant in mutants if entry.fits(mutant)]
        place = PLACE.fullmatch(entry.place or "1 of 1")
        number, places = map(int, place.groups()) if place else (0, 0)
        if not found:
            raise ListError(f"{name}:{entry.line}: matches no mutant: {entry.text}")
        if len(found) != places or not 1 <= number <= places:
            raise ListError(
                f"{name}:{entry.line}: matches {len(found)} mutants: say which, as"
                f' "1 of {len(found)}": {entry.text}'
            )
        ids.add(found[number - 1].id)
    return ids
