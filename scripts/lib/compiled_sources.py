#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Passes on those of the file names on standard input that a build directory
compiles, so that a linter is not run on what it has no flags for.

Usage: compiled_sources.py BUILD-DIRECTORY
"""

import json
import os
import sys


def compiled(directory):
    with open(os.path.join(directory, "compile_commands.json")) as file:
        return {
            os.path.realpath(os.path.join(entry["directory"], entry["file"]))
            for entry in json.load(file)
        }


if __name__ == "__main__":
    known = compiled(sys.argv[1])
    for line in sys.stdin:
        if os.path.realpath(line.strip()) in known:
            print(line, end="")
