# SPDX-License-Identifier: Apache-2.0
"""The kinds of mutants, one function each: it reads a source and yields the
places where such a mutant is possible, with the replacement. `declared` maps
each named constant to the next one of its type.

A text is no kind: that each text is exact is verified by tests that compare
whole log lines, and a mutant for each character would only repeat them.
"""

import re
from dataclasses import dataclass

from tokens import Source, without_comments

LEVELS = ["progress", "failure", "error", "pass"]
LOGS = ("MORROW_LOG", "MORROW_TRACE")

OTHER_OPERATOR = {
    "==": "!=",
    "!=": "==",
    "<": "<=",
    "<=": "<",
    ">": ">=",
    ">=": ">",
    "&&": "||",
    "||": "&&",
}

OTHER_ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "&": "|", "|": "&"}

CONSTANT = re.compile(r"(?=.{4})[A-Z][A-Z0-9]*(?:_[A-Z0-9]+)*$")


@dataclass(frozen=True)
class Replacement:
    """`replacement` in the place of the text from `start` to `end`."""

    kind: str
    start: int
    end: int
    replacement: str


class Mutant:
    """A source file with one replacement."""

    def __init__(self, source, fault):
        self.path = source.path
        self.kind = fault.kind
        self.line, column = source.line_and_column(fault.start)
        self.id = f"{source.path}:{self.line}:{column}:{fault.kind}"
        self.function = source.function_at(fault.start)
        self.text = (
            source.text[: fault.start] + fault.replacement + source.text[fault.end :]
        )
        first = source.text.rfind("\n", 0, fault.start) + 1
        last = source.text.find("\n", fault.end)
        self.before = squeezed(source.text[first:last])
        self.after = squeezed(
            source.text[first : fault.start]
            + fault.replacement
            + source.text[fault.end : last]
        )

    @property
    def description(self):
        """The change, independent of line numbers."""
        if self.kind in ("order", "step", "trace"):
            return self.before
        return f"{self.before} → {self.after}"


def squeezed(text):
    """A piece of source as one line, without its comments."""
    return " ".join(without_comments(text).split())


def mutants_of(texts):
    """All mutants of these sources (path -> text), in the order of their
    places."""
    sources = [Source(path, text) for path, text in sorted(texts.items())]
    shared = {}
    for source in sources:
        if source.path.endswith(".hpp"):
            shared.update(names_declared(source))
    return [mutant for source in sources for mutant in mutants_in(source, shared)]


def mutants_in(source, shared):
    declared = {**shared, **names_declared(source)}
    faults = {}
    for kind in KINDS:
        for fault in kind(source, declared):
            if source.text[fault.start : fault.end] != fault.replacement:
                faults.setdefault((fault.start, fault.kind, fault.end), fault)
    mutants = [Mutant(source, faults[key]) for key in sorted(faults)]
    return with_unique_ids(mutants)


def with_unique_ids(mutants):
    seen = {}
    for mutant in mutants:
        number = seen[mutant.id] = seen.get(mutant.id, 0) + 1
        if number > 1:
            mutant.id += f"-{number}"
    return mutants


# The kinds


def tokens(source, declared):
    """One token is another."""
    for index, token in enumerate(source.tokens):
        kind, other = other_token(source, index, declared)
        if kind:
            yield Replacement(kind, token.start, token.end, other)


def other_token(source, index, declared):
    """What a token can be in a mutant, with the mutant's kind; no kind for none."""
    token = source.tokens[index]
    text, before = token.text, source.text[token.start - 1]
    if text in LEVELS and source.is_text(index - 4, *LOGS):
        # MORROW_LOG ( logging :: level
        return "level", LEVELS[(LEVELS.index(text) + 1) % 3]
    if text in OTHER_OPERATOR and source.bare(index):
        return "comparison", OTHER_OPERATOR[text]
    if text in OTHER_ARITHMETIC and source.bare(index):
        return "arithmetic", OTHER_ARITHMETIC[text]
    if text in ("++", "--"):
        return "arithmetic", "--" if text == "++" else "++"
    if text == "-" and before in " ({,":
        return "sign", ""
    if text == "!":
        return "negation", ""
    if text in ("true", "false"):
        return "constant", "false" if text == "true" else "true"
    if token.kind == "number":
        return "constant", one_more(text)
    if token.kind == "name" and text in declared:
        return other_name(source, index, declared)
    # A constant of the system; a macro with arguments is none.
    if CONSTANT.match(text) and text not in LOGS and not source.is_text(index + 1, "("):
        return "constant", f"({text} + 1)"
    return None, ""


def other_name(source, index, declared):
    """Another named constant of its type, where one is used."""
    if source.is_text(index - 1, "::", ".", "->", "&", "*"):
        return None, ""
    if source.is_text(index + 1, "=", "{", ".", "("):
        return None, ""
    return "name", declared[source.tokens[index].text]


def one_more(number):
    digits, suffix = re.match(r"(0[xX][0-9a-fA-F]+|\d[\d']*)(.*)", number).groups()
    if digits[:2] in ("0x", "0X"):
        width = len(digits) - 2
        return f"0x{int(digits, 16) + 1:0{width}X}{suffix}"
    return f"{int(digits.replace(chr(39), '')) + 1}{suffix}"


def names_declared(source):
    """The constants that a source declares, with those of the same type next
    to them: NAME -> the one after it."""
    runs = {}
    for index, token in enumerate(source.tokens):
        if token.text != "constexpr":
            continue
        end = index
        while not source.is_text(end, "=", "{", "(", ";"):
            end += 1
        if source.is_text(end, "=", "{") and source.tokens[end - 1].kind == "name":
            type_text = squeezed(source.span(index, end - 2))
            runs.setdefault(type_text, []).append(source.tokens[end - 1].text)
    return {
        name: names[(place + 1) % len(names)]
        for names in runs.values()
        for place, name in enumerate(names)
    }


def steps(source, _declared):
    """A statement is missing."""
    for opening, run in runs(source):
        for statement in run:
            first = source.tokens[statement.first]
            if (
                statement.kind == "compound"
                or first.text == "["
                or statement.first == statement.last
                or (first.text == "return" and statement.last > statement.first + 1)
                or is_needed(source, opening, statement)
                or ends_a_switch(source, opening, statement)
            ):
                continue
            kind = "trace" if first.text == "MORROW_TRACE" else "step"
            yield Replacement(kind, first.start, source.tokens[statement.last].end, ";")


def is_needed(source, opening, statement):
    """Whether nothing compiles without a statement: it declares a name that
    is used after it."""
    name = declared_name(source, statement)
    after = range(statement.last, source.partner[opening])
    return name is not None and any(source.is_text(n, name) for n in after)


def ends_a_switch(source, opening, statement):
    """Whether a statement is the break with which a switch ends anyway."""
    condition = source.partner.get(opening - 1, 0)
    return (
        source.is_text(statement.first, "break")
        and source.is_text(condition - 1, "switch")
        and statement.last + 1 == source.partner[opening]
    )


def declared_name(source, statement):
    """The name that a statement declares, if it does."""
    words = 0
    for index in range(statement.first, statement.last + 1):
        token = source.tokens[index]
        if token.text in ("=", "{", "(", ";"):
            before = source.tokens[index - 1]
            declares = words > 1 and before.kind == "name"
            return before.text if declares else None
        if token.text in (".", "->", "["):
            return None
        if token.kind == "name" and not source.is_text(index - 1, "::"):
            words += 1
    return None


def returns(source, _declared):
    """A function's result is what its type has by default."""
    returning = [
        statement
        for _opening, run in runs(source)
        for statement in run
        if source.is_text(statement.first, "return")
    ]
    for statement in returning:
        first, last = statement.first + 1, statement.last - 1
        if first > last or source.tokens[first].text in ("{", "nullptr"):
            continue
        if first == last and is_constant(source.tokens[first]):
            continue  # a kind of its own
        if source.is_text(last, "nullopt"):
            continue  # the default already
        yield Replacement("return", source.tokens[first].start, source.tokens[last].end, "{}")


def is_constant(token):
    return token.kind == "number" or token.text in ("true", "false")


def orders(source, _declared):
    """Two steps that follow each other change places."""
    for _opening, run in runs(source):
        for one, other in zip(run, run[1:]):
            if not has_effect(source, one) or not has_effect(source, other):
                continue
            name = declared_name(source, one)
            uses = range(other.first, other.last)
            if name is None or not any(source.is_text(n, name) for n in uses):
                ranges = (one.first, one.last), (other.first, other.last)
                yield swapped(source, "order", *ranges)


def has_effect(source, statement):
    """Whether the place of a statement can matter: it calls or changes
    something, and does not leave the block."""
    if source.is_text(
        statement.first, "return", "break", "continue", "[", "throw", "using"
    ):
        return False
    if statement.kind == "compound":
        return True
    inside = range(statement.first, statement.last)
    calls = any(
        source.tokens[n].kind == "name" and source.is_text(n + 1, "(")
        or ends_template_call(source, n)
        for n in inside
    )
    assigns = any(
        source.is_text(n, "=", "++", "--", "+=", "-=", "<<", "|=") for n in inside
    )
    declares = declared_name(source, statement) is not None
    return calls or (assigns and not declares)


def ends_template_call(source, index):
    """Whether a token is the last of "name<type>" in front of arguments."""
    return (
        source.is_text(index, ">")
        and not source.bare(index)
        and source.is_text(index + 1, "(")
    )


def arguments(source, _declared):
    """Two neighbours in a list of arguments or of elements change places."""
    for opening, closing in source.partner.items():
        if closing < opening or opening in source.blocks:
            continue
        if source.is_text(opening, "(") and is_call(source, opening):
            elements = source.elements(opening)
            if source.is_text(opening - 1, *LOGS):
                elements = elements[2:]
        elif source.is_text(opening, "{") and is_list(source, opening):
            elements = source.elements(opening)
        else:
            continue
        for one, other in zip(elements, elements[1:]):
            yield swapped(source, "arguments", one, other)


def is_call(source, opening):
    before = source.tokens[opening - 1]
    return (
        (before.kind == "name" or before.text == ">")
        and before.text not in ("if", "for", "while", "switch", "catch", "main")
        and source.in_block(opening)
    )


def is_list(source, opening):
    """Whether a brace opens a list of values, not a type or a namespace."""
    inside = range(opening + 1, source.partner[opening])
    return not any(source.is_text(n, ";") for n in inside)


def swapped(source, kind, one, other):
    first, second = source.span(*one), source.span(*other)
    start, end = source.tokens[one[0]].start, source.tokens[other[1]].end
    between = source.text[source.tokens[one[1]].end : source.tokens[other[0]].start]
    return Replacement(kind, start, end, second + between + first)


def branches(source, _declared):
    """A condition always holds, or never."""
    for index, token in enumerate(source.tokens):
        if token.text in ("if", "while") and source.is_text(index + 1, "("):
            first, last = index + 2, source.partner[index + 1] - 1
        elif token.text == "for" and source.is_text(index + 1, "("):
            first, last = index + 2, source.partner[index + 1] - 1
            semicolons = [n for n in range(first, last) if source.is_text(n, ";")]
            if len(semicolons) != 2:
                continue
            first, last = semicolons[0] + 1, semicolons[1] - 1
        elif token.text == "?":
            first = last = index - 1
            while not source.is_text(first - 1, "=", "return", "(", ",", "+="):
                first -= 1
                first = min(first, source.partner.get(first, first))
        else:
            continue
        semicolons = [n for n in range(first, last) if source.is_text(n, ";")]
        first = semicolons[-1] + 1 if semicolons else first
        if any(source.is_text(n, "=") for n in range(first, last)):
            continue  # declares what the branch uses
        start, end = source.tokens[first].start, source.tokens[last].end
        for value in ("true", "false"):
            yield Replacement(f"branch-{value}", start, end, value)


def runs(source):
    """The runs of statements of all blocks, each with its block's brace."""
    for opening in sorted(source.blocks):
        for run in source.statements(opening):
            yield opening, run


KINDS = [
    tokens,
    steps,
    returns,
    orders,
    arguments,
    branches,
]
