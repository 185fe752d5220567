#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that each promise in docs/promises.md is held by a test that exists.

Usage: check_promises.py [TREE]

A promise is a row of a table, | id | promise | tests |. The last column names
one or more tests as `Suite.Name`, with commas between them, or says
"untestable: " and why. Tests are looked for in the tree's GoogleTest sources;
one that is disabled, or whose parameters are never given, runs nowhere and
holds nothing.

Each fault is one line; without any, the promises are counted. TREE is the top
of the source tree, by default the one that this program is in.
"""

import re
import sys
from pathlib import Path

PROMISES = Path("docs/promises.md")
TEST_DIRECTORIES = (
    "tests",
    "platform/test",
    "subprojects/sdbusplus/test",
    "yaml/test",
)

HEADING = ["Id", "Promise", "Held by"]
UNTESTABLE = "untestable:"

# Literals go with the comments: what looks like a comment in one is none.
NO_CODE = re.compile(r'"(\\.|[^"\\\n])*"|//[^\n]*|/\*.*?\*/', re.DOTALL)
TEST = re.compile(r"^(TEST|TEST_F|TEST_P)\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
INSTANTIATION = re.compile(
    r"^INSTANTIATE_TEST_SUITE_P\(\s*\w+\s*,\s*(\w+)", re.MULTILINE
)

ID = re.compile(r"[a-z]+-[0-9]{2,3}")
ID_AT_START = re.compile(r"\s*[a-z]+-[0-9]+\s*\|")
RULE = re.compile(r"\|(\s*:?-+:?\s*\|)+")
CELL_END = re.compile(r"(?<!\\)\|")
TEST_NAME = re.compile(r"`(\w+\.\w+)`")


def tests_of(text):
    """The tests that one source makes, and the suites it gives parameters."""
    code = NO_CODE.sub("", text)
    tests = {
        (macro, suite, name)
        for macro, suite, name in TEST.findall(code)
        if not suite.startswith("DISABLED_") and not name.startswith("DISABLED_")
    }
    return tests, set(INSTANTIATION.findall(code))


def collect_tests(tree):
    """The names of all tests that run."""
    tests, instantiated = set(), set()
    for directory in TEST_DIRECTORIES:
        for source in sorted((tree / directory).rglob("*.cpp")):
            made, suites = tests_of(source.read_text(encoding="utf-8"))
            tests |= made
            instantiated |= suites
    return {
        f"{suite}.{name}"
        for macro, suite, name in tests
        if macro != "TEST_P" or suite in instantiated
    }


def cells_of(line):
    return [cell.strip() for cell in CELL_END.split(line.strip())[1:-1]]


class Checker:
    """Reads the promises row by row and remembers what is wrong with them."""

    def __init__(self, tests):
        self.tests = tests
        self.faults = []
        self.line = 0
        self.ids = {}
        self.promises = {}
        self.held = 0
        self.untestable = 0
        self.holders = set()

    def fault(self, text):
        self.faults.append(f"{PROMISES}:{self.line}: {text}")

    def read(self, text):
        for self.line, line in enumerate(text.splitlines(), start=1):
            if line.startswith("|"):
                self.read_row(line)
            elif ID_AT_START.match(line):
                self.fault("a row that does not begin with '|': begin it so")
        if not self.ids and not self.faults:
            self.line = 1
            self.fault("there is no promise: write one as | id | promise | tests |")

    def read_row(self, line):
        if RULE.fullmatch(line.strip()):
            return
        if not line.rstrip().endswith("|"):
            self.fault("the row does not end with '|': end it so")
            return
        cells = cells_of(line)
        if cells == HEADING:
            return
        if len(cells) != len(HEADING):
            self.fault(
                f"the row has {len(cells)} columns instead of {len(HEADING)}: "
                "write | id | promise | tests |, and \\| for a bar in a text"
            )
            return
        self.check_row(*cells)

    def check_row(self, identifier, promise, holders):
        if ID.fullmatch(identifier):
            self.check_new(self.ids, identifier, f"the id {identifier}", "take another")
        else:
            self.fault(f"'{identifier}' is no id: write area-number, as in loop-07")
        if promise:
            words = " ".join(promise.split())
            self.check_new(self.promises, words, "the same promise", "keep one")
        else:
            self.fault("the row promises nothing: say what holds, or remove it")
        self.check_holders(holders)

    def check_new(self, known, key, what, remedy):
        if key in known:
            self.fault(f"{what} is in line {known[key]} too: {remedy}")
        known.setdefault(key, self.line)

    def check_holders(self, holders):
        if holders.startswith(UNTESTABLE):
            self.untestable += 1
            if not holders[len(UNTESTABLE) :].strip():
                self.fault("untestable without a reason: say why")
            return
        if not holders:
            self.fault("no test holds this: write one and name it, or say untestable: why")
            return
        self.held += 1
        for name in (part.strip() for part in holders.split(",")):
            self.check_holder(name)

    def check_holder(self, name):
        match = TEST_NAME.fullmatch(name)
        if match is None:
            self.fault(f"'{name}' names no test: write `Suite.Name`, commas between")
        elif match[1] not in self.tests:
            self.fault(
                f"there is no test {match[1]} that runs: correct the name, "
                "or write the test"
            )
        else:
            self.holders.add(match[1])


def main(arguments):
    if len(arguments) > 1 or any(one.startswith("-") for one in arguments):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    tree = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[1]
    try:
        text = (tree / PROMISES).read_text(encoding="utf-8")
    except OSError as error:
        print(
            f"{PROMISES}: cannot be read in {tree} ({error.strerror}): "
            "name the top of the source tree"
        )
        return 1
    checker = Checker(collect_tests(tree))
    checker.read(text)
    if checker.faults:
        print("\n".join(checker.faults))
        return 1
    print(
        f"promises: {checker.held} held by {len(checker.holders)} tests, "
        f"{checker.untestable} untestable"
    )
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
