#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that a manual page says what its program does.

Usage: check_manual.py messages PAGE SOURCE...
       check_manual.py options PAGE PROGRAM

messages: the page has every text that the sources log at levels 1 and 2.
options: the page lists the options that `PROGRAM --help` has, and no others.
Prints a line for each that differs and fails then.
"""

import re
import subprocess
import sys
from pathlib import Path

# MORROW_LOG(logging::error, "a format" "in parts", ...)
SEVERE_LOG = re.compile(
    r'MORROW_LOG\(\s*logging::(?:error|failure)\s*,\s*((?:"(?:[^"\\]|\\.)*"\s*)+)'
    r"(?:,\s*\"((?:[^\"\\]|\\.)*)\"\s*\))?"
)
CONVERSION = re.compile(r"%[a-z]+")


def texts_of(source):
    """The texts that a source logs at levels 1 and 2."""
    for parts, value in SEVERE_LOG.findall(source):
        text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', parts))
        # A text that is itself a value of "%s" stands behind it.
        yield (value or text).replace("\\n", "")


def pieces_of(text):
    """What of a text is the same each time."""
    return [piece.strip() for piece in CONVERSION.split(text)]


def plain(page):
    """A page without what stands between the words of a line."""
    return " ".join(page.replace("\\&", "").split())


def check_messages(page, sources):
    shown = plain(Path(page).read_text(encoding="utf-8"))
    logged = [
        text
        for source in sources
        for text in texts_of(Path(source).read_text(encoding="utf-8"))
    ]
    if not logged:
        return ["the sources log nothing at levels 1 and 2: look at the check"]
    return [
        f"{page} does not have the message '{text}': add what it means"
        for text in logged
        if not all(piece in shown for piece in pieces_of(text))
    ]


def options_of_help(text):
    """Each option's names and argument, from the lines of a help text."""
    line = re.compile(r"^  (-\S+)(?: ([A-Z]+)\b)?", re.MULTILINE)
    return {
        (frozenset(names.split(",")), argument)
        for names, argument in line.findall(text)
    }


def options_of_page(text):
    """Each option's names and argument, from the items that begin with Fl."""
    found = set()
    for item in re.findall(r"^\.It (Fl .*)$", text, re.MULTILINE):
        names = frozenset("-" + name for name in re.findall(r"Fl (\S+)", item))
        argument = re.search(r"Ar (\S+)", item)
        found.add((names, argument.group(1) if argument else ""))
    return found


def in_words(option):
    names, argument = option
    return " ".join([",".join(sorted(names)), argument]).strip()


def check_options(page, program):
    shown = options_of_page(Path(page).read_text(encoding="utf-8"))
    help_text = subprocess.run(
        [program, "--help"], check=True, capture_output=True, text=True
    ).stdout
    had = options_of_help(help_text)
    missing = [
        f"{page} does not have the option {in_words(option)}: add it"
        for option in had - shown
    ]
    too_many = [
        f"{page} has the option {in_words(option)}, which {program} has not:"
        " remove it"
        for option in shown - had
    ]
    return missing + too_many


def main(arguments):
    """@return the exit status: 0, 1 when something differs, 2 wrong usage"""
    match arguments:
        case ["messages", page, *sources] if sources:
            wrong = check_messages(page, sources)
        case ["options", page, program]:
            wrong = check_options(page, program)
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    for line in sorted(wrong):
        print(line)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
