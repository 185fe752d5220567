#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests of the command line of the isolated tests."""

import os
import re
import shlex
import subprocess
import unittest

# The sandbox with one of the test programs, and with one whose tests skip.
COMMAND = shlex.split(os.environ["COMMAND"])
SKIPPING = shlex.split(os.environ["SKIPPING"])
SUITE = "InitialValues"
TEST = f"{SUITE}.AreAsTheStateLoopExpects"


def run(*arguments, command=COMMAND):
    return subprocess.run([*command, *arguments], capture_output=True, text=True)


def passed(*arguments):
    """The names of the tests that have run, all of which have passed."""
    done = run(*arguments)
    assert done.returncode == 0, done.stdout + done.stderr
    return re.findall(r"^ok \d+ - (\S+)$", done.stdout, re.MULTILINE)


class Selection(unittest.TestCase):
    def test_by_name(self):
        self.assertEqual(passed(TEST), [TEST])

    def test_by_filter(self):
        self.assertEqual(passed("--gtest_filter=Nothing*:Init*Values.*"), [TEST])
        self.assertEqual(
            passed(f"--gtest_filter={SUITE}.*:StateValues.*-*AsTheStateLoop*"),
            ["StateValues.AreNumberedAsGiven"],
        )

    def test_listed(self):
        self.assertIn(f"{SUITE}.\n", run("--gtest_list_tests").stdout)


class Output(unittest.TestCase):
    def test_of_a_passing_test_is_shown_on_request(self):
        test = "ProbeCpuVendor.LogsAndTracesWhatItReads"
        event = "ReadIO_Str_C CPU_VENDOR"
        self.assertNotIn(event, run(test).stdout)
        self.assertRegex(run(test, "--show").stdout, rf"(?m)^# \d+ {event}")


class Skipping(unittest.TestCase):
    def test_is_no_pass_and_no_failure(self):
        done = run("Skipping.OnPurpose", command=SKIPPING)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(
            done.stdout, "1..1\nok 1 - Skipping.OnPurpose # SKIP on purpose\n"
        )

    def test_needs_a_test_that_says_so_and_has_not_failed(self):
        for name in ("AfterAFailure", "ByItsExitStatusAlone"):
            done = run(f"Skipping.{name}", command=SKIPPING)
            self.assertEqual(done.returncode, 1)
            self.assertIn(f"not ok 1 - Skipping.{name}\n", done.stdout)


class UsageErrors(unittest.TestCase):
    def test_are_refused(self):
        for arguments, message in (
            ([f"{SUITE}.IsNotThere"], f"{SUITE}.IsNotThere: no such test"),
            ([TEST, "Another.Test"], "Another.Test: no such test"),
            (["--nonsense"], "--nonsense: no such option"),
            (["--gtest_nonsense"], "--gtest_nonsense: no such option"),
            (["--gtest_filter=Nothing.*"], "Nothing.*: no test matches"),
            (["--jobs=some"], "--jobs=some: not a number of jobs"),
            (["--jobs=0"], "--jobs=0: not a number of jobs"),
        ):
            with self.subTest(arguments):
                done = run(*arguments)
                self.assertEqual(done.returncode, 2)
                self.assertTrue(done.stderr.endswith(f": {message}\n"), done.stderr)
                self.assertNotIn("ok ", done.stdout)


if __name__ == "__main__":
    unittest.main()
