#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that what the documents name is there.

Usage: check_documents.py [DIRECTORY]

In the tree (this one, if no DIRECTORY is given) each relative link of a
Markdown file leads to a file and, if it goes on with #..., to a heading; each
`scripts/...` is a script; and the tables of options in docs/building.md have
Meson's options, all of them and no others. Prints a line for each that is not
so and fails then.
"""

import re
import sys
from pathlib import Path

LINK = re.compile(r"\[[^\]]*\]\((?!https?:)([^)#\s]*)(#[^)\s]*)?\)")
SCRIPT = re.compile(r"(?<![\w/.])scripts/[\w./-]*[\w-]")
CODE = re.compile(r"^    .*$|`[^`\n]*`", re.MULTILINE)
OPTION = re.compile(r"^option\('(\w+)'", re.MULTILINE)
OPTION_ROW = re.compile(r"^\| `(\w+)` \|", re.MULTILINE)


def documents_of(tree):
    """The tree's Markdown files; builds have copies of some."""
    return sorted(
        path
        for path in tree.rglob("*.md")
        if not path.relative_to(tree).parts[0].startswith("build")
    )


def headings_of(text):
    """The names by which links lead to a document's headings."""
    return {
        "#" + re.sub(r"[^\w\s-]", "", title.lower()).replace(" ", "-")
        for title in re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    }


def wrong_links(document, text):
    for file, heading in LINK.findall(CODE.sub("", text)):
        target = document.parent / file if file else document
        if not target.exists():
            yield f"links to {file}, which is not there"
        elif heading and heading not in headings_of(
            target.read_text(encoding="utf-8")
        ):
            yield f"links to {file}{heading}, a heading that is not there"


def wrong_scripts(tree, text):
    for script in sorted(set(SCRIPT.findall(text))):
        if not (tree / script).exists():
            yield f"names {script}, which is not there"


def wrong_options(tree, text):
    options = (tree / "meson_options.txt").read_text(encoding="utf-8")
    had = set(OPTION.findall(options))
    told = set(OPTION_ROW.findall(text))
    for option in sorted(had - told):
        yield f"does not tell the option {option} of meson_options.txt"
    for option in sorted(told - had):
        yield f"tells the option {option}, which meson_options.txt has not"


def check(tree):
    """What is wrong in the tree, a line each."""
    lines = []
    for document in documents_of(tree):
        text = document.read_text(encoding="utf-8")
        wrong = [*wrong_links(document, text), *wrong_scripts(tree, text)]
        if document == tree / "docs/building.md":
            wrong += wrong_options(tree, text)
        lines += [f"{document.relative_to(tree)} {what}" for what in wrong]
    return lines


def main(arguments):
    """@return the exit status: 0, or 1 when something is wrong"""
    tree = Path(arguments[0] if arguments else Path(__file__).parents[1])
    wrong = check(tree.resolve())
    for line in wrong:
        print(line)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
