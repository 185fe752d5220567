#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a compilation database for a linter: one command for each source,
without precompiled headers. Prints the file names of standard input that it has.

Usage: compiled_sources.py BUILD-DIRECTORY DATABASE-DIRECTORY
"""

import json
import os
import re
import sys


def one_command_each(directory):
    with open(os.path.join(directory, "compile_commands.json")) as file:
        entries = json.load(file)
    commands = {}
    for entry in entries:
        source = os.path.realpath(os.path.join(entry["directory"], entry["file"]))
        # The compiler's precompiled headers are not the linter's.
        entry["command"] = re.sub(
            r"-fpch-preprocess -include \S+ ", "", entry["command"]
        )
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
