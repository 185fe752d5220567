# SPDX-License-Identifier: Apache-2.0
"""Tokens, brackets and statements of C++.

Relies on the project's formatter instead of a full parser: a comparison has
blanks around it, a template's angle bracket has not. Comments and preprocessor
lines are no tokens, so no mutant is made there.
"""

import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""
      (?P<space>\s+)
    | (?P<comment>//[^\n]*|/\*.*?\*/)
    | (?P<raw>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)")
    | (?P<string>"(?:\\.|[^"\\\n])*")
    | (?P<char>'(?:\\.|[^'\\\n])+')
    | (?P<number>\.?\d(?:'?\w|[eE][+-]|\.)*)
    | (?P<name>[A-Za-z_]\w*)
    | (?P<sign>->\*?|\+\+|--|<=>|<<=|>>=|<<|<=|>=|==|!=|&&|\|\||::
        |[-+*/%&|^]=|\.\.\.|.)
    """,
    re.VERBOSE | re.DOTALL,
)

PREPROCESSOR = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.MULTILINE)

OPENING = {"(": ")", "[": "]", "{": "}"}

# What stands before the brace of a function's or a statement's block.
BEFORE_A_BLOCK = {")", "else", "try", "do", "const", "noexcept", "override"}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclass(frozen=True)
class Statement:
    """Tokens `first` to `last`, both part of it."""

    kind: str  # simple, compound
    first: int
    last: int


def tokens_of(text):
    """The tokens of a source, without comments and preprocessor lines."""
    blanked = PREPROCESSOR.sub(lambda line: re.sub(r"[^\n]", " ", line[0]), text)
    found = []
    for match in TOKEN.finditer(blanked):
        if match.lastgroup == "mark":  # a raw string ends in its mark
            found.append(Token("raw", match[0], match.start()))
        elif match.lastgroup not in ("space", "comment"):
            found.append(Token(match.lastgroup, match[0], match.start()))
    return found


def without_comments(text):
    return "".join(
        match[0] for match in TOKEN.finditer(text) if match.lastgroup != "comment"
    )


class Source:
    """A source file with its structure."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = {}
        self._parents = {}
        self._match_brackets()
        self.blocks = self._find_blocks()
        self._functions = self._find_functions()

    def is_text(self, index, *texts):
        """Whether the token at an index is one of these."""
        return 0 <= index < len(self.tokens) and self.tokens[index].text in texts

    def line_and_column(self, offset):
        """Both from 1."""
        line = self.text.count("\n", 0, offset) + 1
        return line, offset - self.text.rfind("\n", 0, offset)

    def function_at(self, offset):
        """The name of the function around an offset, empty outside of all."""
        for start, end, name in self._functions:
            if start <= offset < end:
                return name
        return ""

    def in_block(self, index):
        """Whether a token is code that runs: inside of a function's block."""
        opening = self._parents.get(index)
        while opening is not None:
            if opening in self.blocks:
                return True
            opening = self._parents.get(opening)
        return False

    def bare(self, index):
        """Whether an operator's token has blanks (or line ends) around it."""
        token = self.tokens[index]
        return (
            self.text[token.start - 1].isspace() and self.text[token.end].isspace()
        )

    def span(self, first, last):
        """The text from a token to another, both part of it."""
        return self.text[self.tokens[first].start : self.tokens[last].end]

    def elements(self, opening):
        """The token ranges between a bracket's commas, as (first, last)."""
        closing = self.partner[opening]
        ranges = []
        first = index = opening + 1
        while index < closing:
            if index in self.partner and self.partner[index] > index:
                index = self.partner[index]
            elif self.tokens[index].text == ",":
                ranges.append((first, index - 1))
                first = index + 1
            index += 1
        ranges.append((first, closing - 1))
        return [(first, last) for first, last in ranges if first <= last]

    def statements(self, opening):
        """The statements of a block, in runs that no label interrupts."""
        runs = [[]]
        closing = self.partner[opening]
        index = opening + 1
        while index < closing:
            if self.is_text(index, "case", "default"):
                while not self.is_text(index, ":"):
                    index += 1
                runs.append([])
                index += 1
                continue
            statement = self._statement(index)
            runs[-1].append(statement)
            index = statement.last + 1
        return [run for run in runs if run]

    def _statement(self, index):
        text = self.tokens[index].text
        if text == "{":
            return Statement("compound", index, self.partner[index])
        if text in ("if", "for", "while", "switch"):
            parenthesis = index + 1
            while not self.is_text(parenthesis, "("):  # if constexpr
                parenthesis += 1
            last = self._statement(self.partner[parenthesis] + 1).last
            if text == "if" and self.is_text(last + 1, "else"):
                last = self._statement(last + 2).last
            return Statement("compound", index, last)
        if text == "try":
            last = self.partner[index + 1]
            while self.is_text(last + 1, "catch"):
                last = self.partner[self.partner[last + 2] + 1]
            return Statement("compound", index, last)
        last = index
        while not self.is_text(last, ";"):
            last = self.partner[last] if last in self.partner else last
            last += 1
        return Statement("simple", index, last)

    def _match_brackets(self):
        open_brackets = []
        for index, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in OPENING.values():
                opening = open_brackets.pop()
                self.partner[opening] = index
                self.partner[index] = opening
            self._parents[index] = open_brackets[-1] if open_brackets else None
            if token.kind == "sign" and token.text in OPENING:
                open_brackets.append(index)

    def _find_blocks(self):
        """The opening braces of blocks of statements."""
        blocks = set()
        for index, token in enumerate(self.tokens):
            if token.text != "{" or index == 0:
                continue
            inside_block = self._parents[index] in blocks
            if self.tokens[index - 1].text in BEFORE_A_BLOCK or (
                inside_block and self.is_text(index - 1, ";", "{", "}", ":")
            ):
                blocks.add(index)
        return blocks

    def _find_functions(self):
        """Start, end and name of each outermost block."""
        functions = []
        for opening in sorted(self.blocks):
            if self.in_block(opening):
                continue
            first = opening
            while first > 0 and not self.is_text(first - 1, ";", "}", "{"):
                first -= 1
            name = first
            while name < opening and not self.is_text(name + 1, "("):
                name += 1
            text = self.tokens[name].text
            if self.is_text(name - 1, "~", "operator"):
                text = self.tokens[name - 1].text + text
            start = self.tokens[first].start
            end = self.tokens[self.partner[opening]].end
            functions.append((start, end, text))
        return functions
