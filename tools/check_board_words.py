#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that morrow-board understands what the documents tell it.

Usage: check_board_words.py PROGRAM DOCUMENT...

Takes the commands after each "morrow> " and in each table's column "Simulated"
and gives them to PROGRAM as a story. Fails with the program's own words when
there is one that it does not understand. No board is needed: the story's last
line is wrong on purpose, and a story is refused as a whole.
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
                # Programs are told there as well.
                if not code.startswith("morrow-board"):
                    yield code
        elif "Simulated" in cells_of(line):
            column = cells_of(line).index("Simulated")


def refusal_of(program, commands):
    """The number of the first line that the program refuses, and its words."""
    played = subprocess.run(
        [program, "--play", "-"],
        input="\n".join([*commands, ""]),
        capture_output=True,
        text=True,
        check=False,
    )
    refusal = re.search(r"standard input:(\d+): (.*)", played.stderr)
    if not refusal:
        return 0, f"{program} refuses nothing: {played.stdout}{played.stderr}"
    return int(refusal.group(1)), refusal.group(2)


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
    if not commands:
        print("the documents have no commands: look at the check")
        return 1
    line, why = refusal_of(program, [*commands, "no such word"])
    if line == len(commands) + 1:
        return 0
    print(f"'{commands[line - 1]}' in the documents: {why}" if line else why)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
