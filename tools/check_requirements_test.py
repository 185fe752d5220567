#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Each error that a row of the requirements can have is found."""

import unittest

import check_requirements

TESTS = {"Loop.Reads", "Loop.Sleeps"}
ROWS = {
    "| loop-01 | it reads | `Loop.Reads` |": 0,
    "| loop-02, loop-03 | it reads `a \\| b` | `Loop.Reads`, `Loop.Sleeps` |": 0,
    "| loop-04 | it plays | `scenarios/power-cycle.board` |": 0,
    "| loop-05 | it is quick | untestable: a second is long |": 0,
    "| loop-06 | it writes | `Loop.Writes` |": 1,
    "| loop-07 | it plays | `scenarios/none.board` |": 1,
    "| loop-08 | it reads | Loop.Reads |": 1,
    "| loop-09 | it is quick | untestable: |": 1,
    "| loop-10 | it reads | |": 1,
    "| loop-11 | | `Loop.Reads` |": 1,
    "| loop | it reads | `Loop.Reads` |": 1,
    "| loop-12 | it | reads | `Loop.Reads` |": 1,
    "| loop-01, loop-02 | it reads | `Loop.Reads` |": 2,
}


class CheckRequirements(unittest.TestCase):
    def test_counts_the_errors_of_each_row(self):
        tree = check_requirements.TREE
        known = {"loop-01", "loop-02"}
        for row, count in ROWS.items():
            with self.subTest(row=row):
                used = known if count == 2 else set()
                errors = check_requirements.errors_of(row, used, tree, TESTS)
                self.assertEqual(len(list(errors)), count)

    def test_finds_tests_that_run(self):
        tests = check_requirements.tests_of(check_requirements.TREE)
        self.assertGreater(len(tests), 100)
        self.assertFalse(any("DISABLED_" in test for test in tests))


if __name__ == "__main__":
    unittest.main()
