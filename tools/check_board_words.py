#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that morrow-board can parse the commands of documents.

Usage: check_board_words.py PROGRAM DOCUMENT...

Takes the commands after each "morrow> " and in each table's column "Simulated"
or "Command", and lets PROGRAM parse them as a scenario.
"""

import re
import subprocess
import sys
from pathlib import Path


def cells_of(row):
    """The cells of a table's row, a | in which is written \\|."""
    return [cell.strip() for cell in re.split(r"(?<!\\)\|", row)[1:-1]]


def commands_of(text):
    """The commands for the board that a document has."""
    column = None
    for line in text.splitlines():
        prompt = re.match(r" *morrow> (.*)", line)
        if prompt:
            yield prompt.group(1)
        if not line.startswith("|"):
            column = None
        elif column is not None:
            for code in re.findall(r"`([^`]*)`", cells_of(line)[column]):
                # Programs stand there as well, and "#" for comments.
                if not code.startswith(("morrow-board", "#")):
                    yield code
        else:
            named = {"Simulated", "Command"}.intersection(cells_of(line))
            column = cells_of(line).index(named.pop()) if named else None


def main(arguments):
    """@return the exit status: 0, 1 when something is wrong, 2 wrong usage"""
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    program, *documents = arguments
    commands = [
        command
        for document in documents
        for command in commands_of(Path(document).read_text(encoding="utf-8"))
    ]
    parsed = subprocess.run(
        [program, "--parse", "-"], input="\n".join([*commands, ""]), text=True,
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
    )  # fmt: skip
    if parsed.returncode == 0:
        return 0
    line = re.search(r"standard input:(\d+): ", parsed.stderr)
    print(f"'{commands[int(line[1]) - 1]}': " if line else "", parsed.stderr, sep="")
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
