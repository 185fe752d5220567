#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That each way in which documents can name what is not there is found."""

import tempfile
import unittest
from pathlib import Path

import check_documents

README = """# Thing

See [the guide](docs/guide.md), [its end](docs/guide.md#the-end),
[below](#below), [the web](https://example.org/none.md) and `scripts/run`.
`[this](is.md)` is code.

## Below
"""

BUILDING = """# Building

| Option | Meaning |
|---|---|
| `board` | the board |
"""


class CheckDocuments(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)
        self.write("README.md", README)
        self.write("docs/guide.md", "# Guide\n\n## The end\n")
        self.write("docs/building.md", BUILDING)
        self.write("scripts/run", "")
        self.write("meson_options.txt", "option('board', type: 'feature')\n")

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def finds(self, *lines):
        self.assertEqual(check_documents.check(self.tree), list(lines))

    def test_nothing_is_wrong_where_all_is_there(self):
        self.finds()

    def test_link_to_no_file(self):
        (self.tree / "docs/guide.md").unlink()
        line = "README.md links to docs/guide.md, which is not there"
        self.finds(line, line)

    def test_link_to_no_heading(self):
        self.write("docs/guide.md", "# Guide\n")
        self.finds(
            "README.md links to docs/guide.md#the-end, a heading that is not"
            " there"
        )

    def test_link_to_no_heading_of_its_own(self):
        self.write("docs/guide.md", "## The end\n[gone](#gone)\n")
        self.finds("docs/guide.md links to #gone, a heading that is not there")

    def test_no_script(self):
        (self.tree / "scripts/run").unlink()
        self.finds("README.md names scripts/run, which is not there")

    def test_option_that_is_not_told(self):
        self.write("meson_options.txt", "option('board')\noption('tests')\n")
        self.finds(
            "docs/building.md does not tell the option tests of"
            " meson_options.txt"
        )

    def test_option_that_there_is_not(self):
        self.write("meson_options.txt", "")
        self.finds(
            "docs/building.md tells the option board, which meson_options.txt"
            " has not"
        )

    def test_what_a_build_has_does_not_count(self):
        self.write("build/copy.md", "[gone](gone.md)")
        self.write("build-other/copy.md", "[gone](gone.md)")
        self.finds()


if __name__ == "__main__":
    unittest.main()
