#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests of what scripts/mutate plants, and of its list of explained mutants."""

import sys
import unittest
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TOP / "tests" / "mutation"))

# pylint: disable=wrong-import-position
from mutation.explained import ListError, entries_of, key_of, refuse_ambiguous
from mutation.faults import mutants_of

SOURCE = "morrow/some.cpp"


def planted(text, kind=None):
    """What becomes of the lines of a source, by kind."""
    return {
        (mutant.before, mutant.after)
        for mutant in mutants_of({SOURCE: text})
        if kind is None or mutant.kind == kind
    }


def in_function(body):
    return "void f(int a)\n{\n" + body + "\n}\n"


class WhatIsLeftAlone(unittest.TestCase):
    def test_comments_and_preprocessor_lines(self):
        text = '#include "a.hpp"\n#define A \\\n  1 + 1\n// 1 == 2\n/* "text" */\n'
        self.assertEqual(planted(text), set())

    def test_angle_brackets_of_templates(self):
        text = "std::vector<int> a;\ntemplate <typename T> T b(T&& c);\n"
        self.assertEqual(planted(text, "comparison"), set())

    def test_statement_without_which_nothing_compiles(self):
        text = in_function("const int b = g();\nh(b);")
        self.assertEqual(planted(text, "step"), {("h(b);", ";")})
        self.assertEqual(planted(text, "order"), set())

    def test_break_that_ends_a_switch(self):
        text = in_function("switch (a)\n{\ncase 1:\nbreak;\ndefault:\nbreak;\n}")
        self.assertEqual(len(planted(text, "step")), 1)

    def test_conversion_in_a_format(self):
        (mutant,) = planted(in_function('g("%d%s");'), "text-end") or {None}
        self.assertIsNone(mutant)


class WhatIsPlanted(unittest.TestCase):
    def expect(self, kind, body, *afters):
        text = in_function(body)
        self.assertEqual({after for _, after in planted(text, kind)}, set(afters))

    def test_another_level(self):
        self.expect(
            "level",
            'MORROW_LOG(logging::error, "%s\\n", b);',
            'MORROW_LOG(logging::progress, "%s\\n", b);',
        )

    def test_another_character(self):
        self.expect("text", 'g("on");', 'g("oN");')
        self.expect("text-end", 'g("on\\n");', 'g("on");')

    def test_another_comparison(self):
        self.expect("comparison", "b = a < 3;", "b = a <= 3;")
        self.expect("comparison", "b = c && d;", "b = c || d;")
        self.expect("negation", "b = !c;", "b = c;")

    def test_another_constant(self):
        self.expect("constant", "g(0x0F, 9U, true);", "g(0x10, 9U, true);",
                    "g(0x0F, 10U, true);", "g(0x0F, 9U, false);")
        self.expect("constant", "g(O_CLOEXEC);", "g((O_CLOEXEC + 1));")

    def test_a_missing_step(self):
        self.expect("step", "g();", ";")
        self.expect("trace", "MORROW_TRACE(logging::error, b);", ";")

    def test_another_result(self):
        text = "int f()\n{\nreturn g();\n}\n"
        self.assertEqual(planted(text, "return"), {("return g();", "return {};")})

    def test_two_steps_in_another_order(self):
        self.expect("order", "g(); // first\nh();", "h(); g();")

    def test_no_order_across_a_label(self):
        self.expect("order", "switch (a)\n{\ncase 1:\ng();\ncase 2:\nh();\n}")

    def test_two_arguments_in_another_order(self):
        self.expect("arguments", "g(b, c(d), e);", "g(c(d), b, e);", "g(b, e, c(d));")

    def test_a_branch_that_is_always_or_never_taken(self):
        self.expect("branch-true", "if (a == 1) { g(); }", "if (true) { g(); }")
        self.expect("branch-false", "b = a ? c : d;", "b = false ? c : d;")

    def test_another_named_constant(self):
        text = "constexpr int one = 1;\nconstexpr int two = 2;\n"
        text += in_function("g(one);")
        self.assertEqual(planted(text, "name"), {("g(one);", "g(two);")})


class Mutants(unittest.TestCase):
    def test_have_ids_of_their_own_that_stay(self):
        texts = {
            str(path.relative_to(TOP)): path.read_text()
            for path in (TOP / "morrow").glob("*.[ch]pp")
        }
        ids = [mutant.id for mutant in mutants_of(texts)]
        self.assertGreater(len(ids), 150)
        self.assertEqual(len(ids), len(set(ids)))
        self.assertEqual(ids, [mutant.id for mutant in mutants_of(texts)])

    def test_know_their_function(self):
        text = "A::A() : b(1)\n{\ng();\n}\nint A::h(int c) const\n{\ng();\n}\n"
        steps = [m for m in mutants_of({SOURCE: text}) if m.kind == "step"]
        self.assertEqual([step.function for step in steps], ["A", "h"])


class ExplainedMutants(unittest.TestCase):
    LIST = (
        "# Title\n\n## `morrow/some.cpp`, `f`\n\n```diff\n-g();\n+;\n-h();\n+;\n```\n"
        "\nNeither\nmatters.\n"
    )

    def test_are_known_by_their_text(self):
        mutants = mutants_of({SOURCE: "\n\n" + in_function("  g();\n  h();")})
        keys = {entry.key for entry in entries_of(self.LIST, "list")}
        steps = {key_of(mutant) for mutant in mutants if mutant.kind == "step"}
        self.assertEqual(keys, steps)

    def test_share_the_reason_that_follows(self):
        reasons = [entry.reason for entry in entries_of(self.LIST, "list")]
        self.assertEqual(reasons, ["Neither matters."] * 2)

    def test_need_a_reason(self):
        without = self.LIST.replace("Neither\nmatters.\n", "")
        with self.assertRaisesRegex(ListError, "without a reason"):
            entries_of(without, "list")
        with self.assertRaisesRegex(ListError, "without a reason"):
            entries_of(without + self.LIST[self.LIST.index("## ") :], "list")

    def test_are_pairs_of_lines(self):
        with self.assertRaisesRegex(ListError, "a line with - and one with \\+"):
            entries_of(self.LIST.replace("+;\n-h", "-h"), "list")
        with self.assertRaisesRegex(ListError, "a line with - and one with \\+"):
            entries_of(self.LIST.replace("+;\n```", "+;\n@@ 1 of 2 @@\n```"), "list")

    def test_say_which_of_several_places_they_mean(self):
        mutants = mutants_of({SOURCE: in_function("g();\nh();\ng();")})
        mutants = [mutant for mutant in mutants if mutant.kind == "step"]
        second = self.LIST.replace("-g();", "@@ 2 of 2 @@\n-g();")
        entries = entries_of(second, "list")
        refuse_ambiguous(entries, mutants, "list")
        explained = {entry.key for entry in entries}
        self.assertEqual(
            [key_of(mutant) in explained for mutant in mutants],
            [False, True, True],
        )

    def test_that_could_mean_several_places_are_refused(self):
        mutants = mutants_of({SOURCE: in_function("g();\nh();\ng();")})
        for text in (self.LIST, self.LIST.replace("-g();", "@@ 1 of 3 @@\n-g();")):
            with self.assertRaisesRegex(ListError, "^list:\\d+: `g\\(\\);` is there 2"):
                refuse_ambiguous(entries_of(text, "list"), mutants, "list")

    def test_of_this_tree_are_all_there(self):
        texts = {
            str(path.relative_to(TOP)): path.read_text()
            for path in (TOP / "morrow").glob("*.[ch]pp")
        }
        mutants = mutants_of(texts)
        keys = {key_of(mutant) for mutant in mutants}
        entries = entries_of((TOP / "docs" / "mutants.md").read_text(), "mutants.md")
        refuse_ambiguous(entries, mutants, "mutants.md")
        self.assertEqual([e.before for e in entries if e.key not in keys], [])


if __name__ == "__main__":
    unittest.main()
