#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the programs of a build export: nothing.

Run by meson test, which sets the environment: PROGRAMS."""

import os
import subprocess
import unittest


class Exports(unittest.TestCase):
    def test_are_none(self):
        for program in os.environ["PROGRAMS"].split(":"):
            with self.subTest(program=program):
                shown = subprocess.run(
                    ["nm", "--dynamic", "--defined-only", "--demangle", program],
                    capture_output=True,
                    text=True,
                    check=True,
                ).stdout.splitlines()
                # A symbol with a version is a copy of a library's variable.
                self.assertEqual([line for line in shown if "@" not in line], [])


if __name__ == "__main__":
    unittest.main()
