#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That each way in which the promises can rot is found, and said in a line."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_promises.py")

TESTS = """
const char* files = "/sys/*";
TEST(Loop, Reads) {}
const char* others = "//*/";
TEST_F(Loop,
       Sleeps)
{
}
// TEST(Loop, Commented) {}
/*
TEST(Loop, CommentedToo) {}
*/
TEST(Loop, DISABLED_Waits) {}
TEST_P(Given, Ends) {}
INSTANTIATE_TEST_SUITE_P(Points, Given, testing::Values(1));
TEST_P(NeverGiven, Ends) {}
"""

HEADING = "# Promises\n\n## The loop\n\n| Id | Promise | Held by |\n|---|---|---|\n"


class CheckPromises(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)
        self.write("tests/unit/loop_test.cpp", TESTS)

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def check(self, *arguments):
        return subprocess.run(
            [sys.executable, CHECKER, *arguments],
            capture_output=True,
            text=True,
            check=False,
        )

    def check_rows(self, *rows):
        """The answer to a table of these rows; the first one is line 7."""
        self.write("docs/promises.md", HEADING + "\n".join(rows) + "\n")
        return self.check(self.tree)

    def assert_held(self, *rows, said):
        done = self.check_rows(*rows)
        self.assertEqual((done.stdout, done.stderr), (said + "\n", ""))
        self.assertEqual(done.returncode, 0)

    def assert_fault(self, *rows, said):
        done = self.check_rows(*rows)
        expected = "".join(f"docs/promises.md:{line}\n" for line in said)
        self.assertEqual((done.stdout, done.stderr), (expected, ""))
        self.assertEqual(done.returncode, 1)

    def test_promises_and_their_tests_are_counted(self):
        self.assert_held(
            "| loop-01 | it reads | `Loop.Reads` |",
            "| loop-02 | it sleeps | `Loop.Sleeps`, `Loop.Reads` |",
            "| loop-03 | it ends | `Given.Ends` |",
            "| loop-04 | it is quick | untestable: a second is long |",
            said="promises: 3 held by 3 tests, 1 untestable",
        )

    def test_tests_of_all_directories_count(self):
        self.write("yaml/test/binding_test.cpp", "TEST(Binding, Holds) {}")
        self.write("subprojects/sdbusplus/test/bus_test.cpp", "TEST(Bus, Opens) {}")
        self.assert_held(
            "| loop-01 | it reads | `Binding.Holds`, `Bus.Opens` |",
            said="promises: 1 held by 2 tests, 0 untestable",
        )

    def test_bar_in_a_text_is_escaped(self):
        self.assert_held(
            "| loop-01 | it says `a \\| b` | `Loop.Reads` |",
            said="promises: 1 held by 1 tests, 0 untestable",
        )

    def test_row_without_a_test(self):
        self.assert_fault(
            "| loop-01 | it reads | |",
            said=[
                "7: no test holds this: write one and name it, "
                "or say untestable: why"
            ],
        )

    def test_test_that_does_not_exist(self):
        for name in (
            "Loop.Write",
            "Loop.Commented",
            "Loop.CommentedToo",
            "Loop.DISABLED_Waits",
            "Loop.Waits",
            "NeverGiven.Ends",
        ):
            with self.subTest(name=name):
                self.assert_fault(
                    "| loop-01 | it reads | `Loop.Reads` |",
                    f"| loop-02 | it writes | `Loop.Reads`, `{name}` |",
                    said=[
                        f"8: there is no test {name} that runs: "
                        "correct the name, or write the test"
                    ],
                )

    def test_what_is_no_test_name(self):
        for name in ("Loop.Reads", "`Loop`", "`Loop.Reads` `Loop.Sleeps`", "see above"):
            with self.subTest(name=name):
                self.assert_fault(
                    f"| loop-01 | it reads | {name} |",
                    said=[
                        f"7: '{name}' names no test: "
                        "write `Suite.Name`, commas between"
                    ],
                )

    def test_untestable_without_a_reason(self):
        self.assert_fault(
            "| loop-01 | it reads | untestable: |",
            said=["7: untestable without a reason: say why"],
        )

    def test_duplicate_id(self):
        self.assert_fault(
            "| loop-01 | it reads | `Loop.Reads` |",
            "| loop-01 | it sleeps | `Loop.Sleeps` |",
            said=["8: the id loop-01 is in line 7 too: take another"],
        )

    def test_duplicate_promise(self):
        self.assert_fault(
            "| loop-01 | it reads twice | `Loop.Reads` |",
            "| loop-02 | it  reads twice | `Loop.Sleeps` |",
            said=["8: the same promise is in line 7 too: keep one"],
        )

    def test_promise_that_is_empty(self):
        self.assert_fault(
            "| loop-01 | | `Loop.Reads` |",
            said=["7: the row promises nothing: say what holds, or remove it"],
        )

    def test_malformed_id(self):
        for identifier in ("", "loop", "loop-1", "Loop-01", "loop-01a"):
            with self.subTest(identifier=identifier):
                self.assert_fault(
                    f"| {identifier} | it reads | `Loop.Reads` |",
                    said=[
                        f"7: '{identifier}' is no id: "
                        "write area-number, as in loop-07"
                    ],
                )

    def test_other_numbers_of_columns(self):
        for row, columns in (
            ("| loop-01 | it reads |", 2),
            ("| loop-01 |", 1),
            ("| loop-01 | it | reads | `Loop.Reads` |", 4),
        ):
            with self.subTest(row=row):
                self.assert_fault(
                    row,
                    said=[
                        f"7: the row has {columns} columns instead of 3: "
                        "write | id | promise | tests |, "
                        "and \\| for a bar in a text"
                    ],
                )

    def test_row_without_its_outer_bars(self):
        self.assert_fault(
            "loop-01 | it reads | `Loop.Reads` |",
            "| loop-02 | it sleeps | `Loop.Sleeps`",
            said=[
                "7: a row that does not begin with '|': begin it so",
                "8: the row does not end with '|': end it so",
            ],
        )

    def test_each_fault_has_its_line(self):
        self.assert_fault(
            "| loop-01 | it reads | |",
            "| loop-01 | it sleeps | untestable: |",
            said=[
                "7: no test holds this: write one and name it, "
                "or say untestable: why",
                "8: the id loop-01 is in line 7 too: take another",
                "8: untestable without a reason: say why",
            ],
        )

    def test_no_promise_at_all(self):
        self.assert_fault(
            said=["1: there is no promise: write one as | id | promise | tests |"],
        )

    def test_tree_without_promises(self):
        done = self.check(self.tree)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(
            done.stdout,
            f"docs/promises.md: cannot be read in {self.tree} (No such file or "
            "directory): name the top of the source tree\n",
        )

    def test_other_arguments_are_answered_with_the_usage(self):
        for arguments in (["--what"], ["a", "b"]):
            with self.subTest(arguments=arguments):
                done = self.check(*arguments)
                self.assertEqual(done.returncode, 2)
                self.assertIn("Usage: check_promises.py [TREE]", done.stderr)


if __name__ == "__main__":
    unittest.main()
