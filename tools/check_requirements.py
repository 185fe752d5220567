#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that each requirement in docs/requirements.md is verified.

Usage: check_requirements.py [TREE]

A requirement is a row of a table, | ids | requirement | verified by |. Its last
column names tests as `Suite.Name` and files of the tree as `scenarios/a.board`,
separated by commas, or reads "untestable: " and why. Prints one line for each
error, or counts the requirements.
"""

import re
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
TEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
HEADING = re.compile(r"\| Id \| Requirement \| Verified by \||[|-]+")
IDS = re.compile(r"[a-z]+-\d{2}(, [a-z]+-\d{2})*")
NAMES = re.compile(r"`[\w./-]+`(, `[\w./-]+`)*")


def tests_of(tree):
    """The names of all GoogleTest tests that are not disabled."""
    return {
        f"{suite}.{name}"
        for directory in ("tests", "board", "platform", "subprojects")
        for source in tree.glob(f"{directory}/**/*_test.cpp")
        for suite, name in TEST.findall(source.read_text(encoding="utf-8"))
        if "DISABLED_" not in suite + name
    }


def errors_of(row, known, tree, tests):
    """What is wrong with a row; adds its ids to the known ones."""
    cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", row)[1:-1]]
    if len(cells) != 3 or not all(cells) or not IDS.fullmatch(cells[0]):
        yield "not a row | area-NN, ... | requirement | verified by |"
        return
    for identifier in cells[0].split(", "):
        if identifier in known:
            yield f"the id {identifier} is used twice"
        known.add(identifier)
    if re.match(r"untestable: \w", cells[2]):
        return
    if not NAMES.fullmatch(cells[2]):
        yield "name tests and files in backquotes, or write 'untestable: why'"
        return
    for name in re.findall(r"[\w./-]+", cells[2]):
        if name not in tests and not ("/" in name and (tree / name).is_file()):
            yield f"there is no test or file {name}"


def check(text, tree, tests):
    """@return the errors, a line each, and the ids"""
    errors, known = [], set()
    for number, line in enumerate(text.splitlines(), start=1):
        if line.startswith("|") and not HEADING.fullmatch(line):
            errors += [
                f"{number}: {what}" for what in errors_of(line, known, tree, tests)
            ]
    return errors, known


def main(arguments):
    tree = Path(arguments[0]) if arguments else TREE
    document = tree / "docs/requirements.md"
    errors, known = check(
        document.read_text(encoding="utf-8"), tree, tests_of(tree)
    )
    for error in errors:
        print(f"docs/requirements.md:{error}")
    print(f"{len(known)} requirements, {len(errors)} errors")
    return 1 if errors or not known else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
