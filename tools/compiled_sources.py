#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes a compilation database in which each source has one command, so that a
linter looks once at what several targets compile, and passes on those of the
file names on standard input that are in it.

Usage: compiled_sources.py BUILD-DIRECTORY DATABASE-DIRECTORY
"""

import json
import os
import sys


def one_command_each(directory):
    with open(os.path.join(directory, "compile_commands.json")) as file:
        entries = json.load(file)
    commands = {}
    for entry in entries:
        source = os.path.realpath(os.path.join(entry["directory"], entry["file"]))
        commands.setdefault(source, entry)
    return commands


if __name__ == "__main__":
    commands = one_command_each(sys.argv[1])
    os.makedirs(sys.argv[2], exist_ok=True)
    with open(os.path.join(sys.argv[2], "compile_commands.json"), "w") as file:
        json.dump(list(commands.values()), file)
    for line in sys.stdin:
        if os.path.realpath(line.strip()) in commands:
            print(line, end="")
