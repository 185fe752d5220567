#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests of the mutants that scripts/mutate makes, and of the list of explained ones."""

import unittest
from pathlib import Path

from explained import ListError, entries_of, explained_ids
from mutants import mutants_of

TOP = Path(__file__).resolve().parents[2]
SOURCE = "morrow/some.cpp"


def changes(text, kind=None):
    """The mutants of a source as pairs of lines, of one kind or all."""
    return {
        (mutant.before, mutant.after)
        for mutant in mutants_of({SOURCE: text})
        if kind is None or mutant.kind == kind
    }


def in_function(body):
    return "void f(int a)\n{\n" + body + "\n}\n"


class NotMutated(unittest.TestCase):
    def test_comments_and_preprocessor_lines(self):
        text = '#include "a.hpp"\n#define A \\\n  1 + 1\n// 1 == 2\n/* "text" */\n'
        self.assertEqual(changes(text), set())

    def test_angle_brackets_of_templates(self):
        text = "std::vector<int> a;\ntemplate <typename T> T b(T&& c);\n"
        self.assertEqual(changes(text, "comparison"), set())

    def test_statement_without_which_nothing_compiles(self):
        text = in_function("const int b = g();\nh(b);")
        self.assertEqual(changes(text, "step"), {("h(b);", ";")})
        self.assertEqual(changes(text, "order"), set())

    def test_break_that_ends_a_switch(self):
        text = in_function("switch (a)\n{\ncase 1:\nbreak;\ndefault:\nbreak;\n}")
        self.assertEqual(len(changes(text, "step")), 1)


class Kinds(unittest.TestCase):
    def expect(self, kind, body, *afters):
        text = in_function(body)
        self.assertEqual({after for _, after in changes(text, kind)}, set(afters))

    def test_another_level(self):
        self.expect(
            "level",
            'MORROW_LOG(logging::error, "%s\\n", b);',
            'MORROW_LOG(logging::progress, "%s\\n", b);',
        )

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
        self.assertEqual(changes(text, "return"), {("return g();", "return {};")})

    def test_two_steps_in_another_order(self):
        self.expect("order", "g(); // first\nh();", "h(); g();")
        self.expect("order", "a::g<int>(b, 0);\nh();", "h(); a::g<int>(b, 0);")

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
        self.assertEqual(changes(text, "name"), {("g(one);", "g(two);")})


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
    BODY = "  g();\n  h();\n  g();"
    TABLE = (
        "# Title\n\n## `morrow/some.cpp`\n\n| Function | Mutant | Text | Place | Reason |\n"
        "|---|---|---|---|---|\n"
    )

    def explained(self, *rows):
        """The lines of the steps that a list of rows explains."""
        mutants = mutants_of({SOURCE: in_function(self.BODY)})
        entries = entries_of(self.TABLE + "".join(f"{row}\n" for row in rows), "list")
        ids = explained_ids(entries, mutants, "list")
        return [mutant.line for mutant in mutants if mutant.id in ids]

    def test_match_by_text_and_place(self):
        self.assertEqual(self.explained("| `f` | step | `h();` | | no effect |"), [4])
        self.assertEqual(self.explained("| `f` | order | `h(); …` | | no effect |"), [4])
        self.assertEqual(self.explained("| `f` | step | `g();` | 2 of 2 | no effect |"), [5])

    def test_are_refused_when_they_match_none_or_several(self):
        for row, message in (
            ("| `f` | step | `i();` | | no effect |", "matches no mutant: i"),
            ("| `g` | step | `h();` | | no effect |", "matches no mutant: h"),
            ("| `f` | step | `g();` | | no effect |", "matches 2 mutants"),
            ("| `f` | step | `g();` | 1 of 3 | no effect |", "matches 2 mutants"),
            ("| `f` | step | `g();` | 3 of 2 | no effect |", "matches 2 mutants"),
            ("| `f` | step | `h();` | | |", "a row has"),
            ("| `f` | step | `h();` | no effect |", "a row has"),
        ):
            with self.assertRaisesRegex(ListError, f"^list:7: {message}"):
                self.explained(row)

    def test_of_this_tree_are_all_there(self):
        texts = {
            str(path.relative_to(TOP)): path.read_text()
            for path in (TOP / "morrow").glob("*.[ch]pp")
        }
        entries = entries_of((TOP / "docs" / "mutants.md").read_text(), "mutants.md")
        ids = explained_ids(entries, mutants_of(texts), "mutants.md")
        self.assertEqual(len(ids), len(entries))


if __name__ == "__main__":
    unittest.main()
