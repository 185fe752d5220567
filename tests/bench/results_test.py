#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That results are kept, compared and written into a document as measured."""

import json
import tempfile
import unittest
from pathlib import Path

import document
from table import Table

MACHINE = {"processors": 2, "model": "Core", "machine": "x86_64", "kernel": "6.1", "compiler": "g++ 12"}


class Results(unittest.TestCase):
    def setUp(self):
        self.table = Table()
        self.table.begin("iterations")
        self.table.add("Iteration", "processor", "µs", [4, 1, 3, 2, 5], [2, 2, 2, 2, 2], ratio_at_most=1.5)
        self.table.begin("growth")
        self.table.add("Growth", "growth", "KiB", [3.6], at_most=4)

    def test_cells_are_medians_with_quartiles_and_their_ratio(self):
        self.assertIn("| processor | µs   | 3 (2–4) | 2        | 1.50 (1.00–2.00) | ratio ≤ 1.5 met |",
                      self.table.as_text())  # fmt: skip

    def test_a_ratio_is_the_median_of_the_ratios_of_each_round(self):
        # The medians' ratio would be 2, and the goal missed.
        self.table.add("Times", "slowing", "ms", [1, 2, 9], [1, 1, 9], ratio_at_most=1.5)
        self.assertIn("| slowing | ms   | 2 (1.50–5.50) | 1 (1–5)  | 1.00 (1.00–1.50) | ratio ≤ 1.5 met |",
                      self.table.as_text())  # fmt: skip

    def test_what_was_not_measured_in_the_same_rounds_is_not_compared(self):
        with self.assertRaises(ValueError):
            self.table.add("Times", "start", "ms", [1, 2], [1])

    def test_there_is_no_ratio_to_nothing(self):
        self.table.add("Memory", "in use", "KiB", [1, 2], [0, 2], ratio_at_most=1)
        self.assertIsNone(self.table.rows[-1].ratio)
        self.assertIs(self.table.rows[-1].met, False)

    def test_a_missed_goal_has_the_digits_that_show_it(self):
        self.table.add("Memory", "dirty", "KiB", [16004], [10000], ratio_at_most=1.6)
        self.table.add("Size", "all", "KiB", [220.0425], at_most=220)
        text = self.table.as_text()
        self.assertIn("| 1.6004 | ratio ≤ 1.6 MISSED |", text)
        self.assertIn("| 220.04 |", text)

    def test_a_note_stands_behind_its_measurements(self):
        self.table.add("Floods", "publishing", "ms", [5000], [1], daemon_note="in 1 of 1 too late")
        self.assertIn("| 5000, in 1 of 1 too late | 1        |", self.table.as_text())

    def test_what_is_not_measured_says_so_and_is_not_compared(self):
        self.table.add_unmeasured("Size", "calls", "", at_most=5)
        self.table.add("Size", "more", "", [4])
        self.assertIn("not measured", self.table.as_text())
        self.assertIsNone(self.table.rows[-2].met)

    def test_goals_that_are_missed_say_so(self):
        self.table.add("Growth", "more", "KiB", [4.5], at_most=4)
        text = self.table.as_text()
        self.assertIn("≤ 4 KiB met", text)
        self.assertIn("≤ 4 KiB MISSED", text)

    def test_a_section_that_is_measured_again_replaces_itself_in_its_place(self):
        again = Table(json.loads(json.dumps(self.table.as_json())))
        again.begin("iterations")
        again.add("Iteration", "processor", "µs", [9])
        again.sort(["iterations", "growth"])
        self.assertEqual([(row.what, row.daemon["median"]) for row in again.rows],
                         [("processor", 9), ("growth", 3.6)])  # fmt: skip

    def write(self, text):
        with tempfile.TemporaryDirectory() as directory:
            results = Path(directory) / "results.json"
            how = {"runs": 5, "commit": "abc", "load": 0.25}
            results.write_text(json.dumps({"machine": MACHINE, "sections": {"iterations": how},
                                           "rows": self.table.as_json()}))  # fmt: skip
            written = Path(directory) / "document.md"
            written.write_text(text)
            document.main(results, written)
            return written.read_text()

    def test_a_document_gets_the_tables_between_its_marks_and_nothing_else_changes(self):
        once = self.write(f"before\n{document.BEGIN}\nold\n{document.END}\nafter\n")
        self.assertTrue(once.startswith(f"before\n{document.BEGIN}\n"))
        self.assertTrue(once.endswith(f"{document.END}\nafter\n"))
        self.assertNotIn("old", once)
        self.assertIn("On 2 processors, Core (x86_64), Linux 6.1, built by g++ 12.", once)
        self.assertIn("| iterations | 5 | abc | 0.25 |", once)
        self.assertIn(self.table.as_text(), once)
        self.assertEqual(self.write(once), once)

    def test_a_document_without_marks_is_left_alone(self):
        with self.assertRaises(SystemExit) as ended:
            self.write("before\nafter\n")
        self.assertIn("document.md: the lines are missing", str(ended.exception))

    def test_a_document_with_its_marks_the_wrong_way_round_is_left_alone(self):
        with self.assertRaises(SystemExit) as ended:
            self.write(f"{document.END}\n{document.BEGIN}\n")
        self.assertIn("document.md: the lines are missing", str(ended.exception))


if __name__ == "__main__":
    unittest.main()
