#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that what the documents name exists.

Usage: check_documents.py [TREE]

Each relative link of a Markdown file leads to a file and, with #..., to a
heading; each path of the tree exists; the tables of options in
docs/building.md have Meson's options; the tables in docs/dbus.md have the
members of the interface. Prints one line for each error.
"""

import re
import sys
from pathlib import Path

INTERFACE = "yaml/xyz/openbmc_project/mctp/Endpoint.interface.yaml"
LINK = re.compile(r"\[[^\]]*\]\((?!https?:)([^)#\s]*)(#[^)\s]*)?\)")
PATH = re.compile(
    r"(?<![\w/.<-])(?:board|docs|man|morrow|packaging|platform|scenarios|scripts"
    r"|subprojects|tests|tools|virtual-board|yaml)/[\w./-]*\w"
)
CODE = re.compile(r"^    .*$|`[^`\n]*`", re.MULTILINE)
# Each document with a table, and what its first column has to list.
TABLES = {
    "docs/building.md": ("meson_options.txt", r"^option\('(\w+)'"),
    "docs/dbus.md": (INTERFACE, r"^    - name: (\w+)"),
}
TABLE_ROW = re.compile(r"^\| `(\w+)` \|", re.MULTILINE)


def headings_of(text):
    """The anchors of a document's headings."""
    return {
        "#" + re.sub(r"[^\w\s-]", "", title.lower()).replace(" ", "-")
        for title in re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    }


def errors_of(tree, document):
    text = document.read_text(encoding="utf-8")
    for file, heading in LINK.findall(CODE.sub("", text)):
        target = document.parent / file if file else document
        if not target.exists():
            yield f"links to {file}, which does not exist"
        elif heading and heading not in headings_of(target.read_text("utf-8")):
            yield f"links to {file}{heading}, which has no such heading"
    for path in sorted(set(PATH.findall(text))):
        if not (tree / path).exists():
            yield f"names {path}, which does not exist"
    source, pattern = TABLES.get(str(document.relative_to(tree)), (None, None))
    if source:
        defined = set(
            re.findall(pattern, (tree / source).read_text("utf-8"), re.MULTILINE)
        )
        for name in sorted(defined ^ set(TABLE_ROW.findall(text))):
            yield f"and {source}: only one of them has {name}"


def main(arguments):
    tree = Path(arguments[0] if arguments else Path(__file__).parents[1]).resolve()
    errors = [
        f"{document.relative_to(tree)} {error}"
        for document in sorted(tree.rglob("*.md"))
        if not document.relative_to(tree).parts[0].startswith("build")
        for error in errors_of(tree, document)
    ]
    print("\n".join(errors))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
