#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that a manual page says what its program does.

Usage: check_manual.py messages PAGE SOURCE...
       check_manual.py options PAGE PROGRAM

messages: the page has every text that the sources log at levels 1 and 2.
options: the page has the options that `PROGRAM --help` prints, and no others.
Prints one line for each error.
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


def texts_of(source):
    """The texts that a source logs at levels 1 and 2."""
    for parts, value in SEVERE_LOG.findall(source):
        # A text that is itself a value of "%s" comes after it.
        text = value or "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', parts))
        yield text.replace("\\n", "")


def check_messages(page, sources):
    shown = " ".join(page.replace("\\&", "").split())
    texts = [text for source in sources for text in texts_of(Path(source).read_text())]
    for text in texts:
        parts = [part.strip() for part in re.split(r"%[a-z]+", text)]
        if not all(part in shown for part in parts):
            yield f"the message '{text}' is missing"
    if not texts:
        yield "no source logs at levels 1 and 2"


def check_options(page, program):
    command = [program, "--help"]
    text = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    printed = {
        name
        for names in re.findall(r"^  (-\S+)", text, re.MULTILINE)
        for name in names.split(",")
    }
    shown = {
        "-" + name
        for item in re.findall(r"^\.It (Fl .*)$", page, re.MULTILINE)
        for name in re.findall(r"Fl (\S+)", item)
    }
    for option in sorted(printed ^ shown):
        yield f"only one of page and program has the option {option}"


def main(arguments):
    """@return the exit status: 0, 1 after an error, 2 for wrong usage"""
    match arguments:
        case ["messages", page, *sources] if sources:
            errors = check_messages(Path(page).read_text(), sources)
        case ["options", page, program]:
            errors = check_options(Path(page).read_text(), program)
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    lines = [f"{page}: {error}" for error in errors]
    print("\n".join(lines))
    return 1 if lines else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
