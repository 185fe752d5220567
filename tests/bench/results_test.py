#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests of how measurements are kept, compared and written into a document."""

import json
import tempfile
import unittest
from pathlib import Path

from results import BEGIN, END, Table, write_document

MACHINE = {"processors": 2, "model": "Core", "machine": "x86_64", "kernel": "6.1", "compiler": "g++ 12"}


class Results(unittest.TestCase):
    def setUp(self):
        self.table = Table()
        self.table.begin("iterations")
        self.table.add("Iteration", "processor", "µs", [4, 1, 3, 2, 5], [2, 2, 2, 2, 2], ratio_at_most=1.5)
        self.table.begin("growth")
        self.table.add("Growth", "growth", "KiB", [3.6], at_most=4)

    def assert_row(self, row):
        self.assertIn(row, self.table.as_text())

    def test_cells_are_medians_with_quartiles_and_their_ratio(self):
        self.assert_row("| processor | µs   | 3 (2–4) | 2        | 1.50 (1.00–2.00) | ratio ≤ 1.5 met |")

    def test_a_ratio_is_the_median_of_the_ratios_of_the_rounds(self):
        # The ratio of the medians would be 2, and the goal missed.
        self.table.add("Times", "slowing", "ms", [1, 2, 9], [1, 1, 9], ratio_at_most=1.5)
        self.assert_row("| slowing | ms   | 2 (1.50–5.50) | 1 (1–5)  | 1.00 (1.00–1.50) | ratio ≤ 1.5 met |")
        with self.assertRaises(ValueError):
            self.table.add("Times", "start", "ms", [1, 2], [1])

    def test_there_is_no_ratio_to_nothing(self):
        self.table.add("Memory", "in use", "KiB", [1, 2], [0, 2], ratio_at_most=1)
        self.assertIsNone(self.table.rows[-1].ratio)
        self.assertIs(self.table.rows[-1].met, False)

    def test_a_missed_goal_says_so_with_the_digits_that_show_it(self):
        self.table.add("Memory", "dirty", "KiB", [16004], [10000], ratio_at_most=1.6)
        self.table.add("Size", "all", "KiB", [220.0425], at_most=220)
        self.assert_row("| 1.6004 | ratio ≤ 1.6 MISSED |")
        self.assert_row("| 220.04 |")

    def test_a_row_without_measurements_says_so(self):
        self.table.add("Size", "all", "KiB", None, at_most=5)
        self.assert_row("not measured")
        self.assertIsNone(self.table.rows[-1].met)

    def test_a_section_that_is_measured_again_replaces_itself_in_its_place(self):
        again = Table(json.loads(json.dumps(self.table.as_json())))
        again.begin("iterations")
        again.add("Iteration", "processor", "µs", [9])
        again.sort(["iterations", "growth"])
        self.assertEqual([(row.what, row.daemon["median"]) for row in again.rows],
                         [("processor", 9), ("growth", 3.6)])  # fmt: skip

    def write(self, text):
        with tempfile.TemporaryDirectory() as directory:
            document = Path(directory) / "document.md"
            document.write_text(text)
            how = {"runs": 5, "commit": "abc", "load": 0.25}
            write_document({"machine": MACHINE, "sections": {"iterations": how},
                            "rows": self.table.as_json()}, document)  # fmt: skip
            return document.read_text()

    def test_a_document_gets_the_tables_between_its_marks(self):
        once = self.write(f"before\n{BEGIN}\nold\n{END}\nafter\n")
        self.assertTrue(once.startswith(f"before\n{BEGIN}\n"))
        self.assertTrue(once.endswith(f"{END}\nafter\n"))
        self.assertNotIn("old", once)
        self.assertIn("On 2 processors, Core (x86_64), Linux 6.1, built by g++ 12.", once)
        self.assertIn("| iterations | 5 | abc | 0.25 |", once)
        self.assertIn(self.table.as_text(), once)
        self.assertEqual(self.write(once), once)

    def test_a_document_without_its_marks_in_order_is_refused(self):
        for text in ("before\nafter\n", f"{END}\n{BEGIN}\n"):
            with self.assertRaisesRegex(ValueError, "document.md: the lines that enclose"):
                self.write(text)


if __name__ == "__main__":
    unittest.main()
