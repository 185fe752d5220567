#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That a manual page which does not say what its program does is found."""

import unittest

import check_manual

SOURCE = """
    MORROW_LOG(logging::error, "%s -Could not %s: %s\\n", __func__, what, why);
    MORROW_LOG(logging::failure, "%s\\n",
               "Failed to begin");
    MORROW_LOG(logging::error,
               "A text in "
               "two parts: %d\\n", number);
    MORROW_LOG(logging::progress, "All is well\\n");
"""

HELP = """Play.
Usage: thing [OPTIONS]

Options:
  -h,--help                   Print this
  --play FILE Excludes: --shell
                              play this
  --shell Excludes: --play    a prompt

Examples:
  thing --made-up
"""

PAGE = """.Bl -tag
.It Fl h , Fl -help
Print.
.It Fl -play Ar FILE
Play.
.It Fl -shell
Prompt.
.It 0
All is well.
"""


class Messages(unittest.TestCase):
    def test_are_those_of_levels_1_and_2(self):
        self.assertEqual(
            list(check_manual.texts_of(SOURCE)),
            [
                "%s -Could not %s: %s",
                "Failed to begin",
                "A text in two parts: %d",
            ],
        )

    def test_are_looked_for_without_their_values(self):
        self.assertEqual(
            check_manual.pieces_of("%s -Could not %s: %s"),
            ["", "-Could not", ":", ""],
        )

    def test_may_have_markup_between_their_words(self):
        self.assertIn("a ]", check_manual.plain("a\n\\&]"))


class Options(unittest.TestCase):
    def test_of_the_help_are_those_of_the_page(self):
        self.assertEqual(
            check_manual.options_of_help(HELP),
            check_manual.options_of_page(PAGE),
        )

    def test_differ_by_name(self):
        self.assertNotEqual(
            check_manual.options_of_help(HELP),
            check_manual.options_of_page(PAGE.replace("-shell", "-shall")),
        )

    def test_differ_by_argument(self):
        self.assertNotEqual(
            check_manual.options_of_help(HELP),
            check_manual.options_of_page(PAGE.replace(" Ar FILE", "")),
        )

    def test_that_the_page_lacks_differ(self):
        without = PAGE.replace(".It Fl -shell\n", "")
        self.assertNotEqual(
            check_manual.options_of_help(HELP),
            check_manual.options_of_page(without),
        )


if __name__ == "__main__":
    unittest.main()
