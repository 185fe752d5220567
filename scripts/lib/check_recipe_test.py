#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That check_recipe.py finds what it is there to find."""

import contextlib
import hashlib
import io
import json
import tempfile
import unittest
from pathlib import Path

import check_recipe

LICENCE = b"Do as you please.\n"

RECIPE = """
# A comment.
PV = "1.2+git"
LIC_FILES_CHKSUM = "file://LICENSE;md5=@SUM@"
inherit meson systemd
EXTRA_OEMESON = " \\
    -Dshape=round \\
    -Dloud=false \\
"
PACKAGECONFIG[own] = "-Dplace=here,-Dplace=there"
PACKAGECONFIG ??= "own"
DEPENDS += "${@bb.utils.contains('PACKAGECONFIG', 'own', '', 'other', d)}"
SYSTEMD_SERVICE:${PN} = "thing.service"
FILES:${PN} += "${libdir}/libthing${SOLIBS}"
""".replace("@SUM@", hashlib.md5(LICENCE).hexdigest())

OPTIONS = [
    {"name": "prefix", "type": "string", "value": "/usr"},
    {"name": "libdir", "type": "string", "value": "lib"},
    {"name": "libexecdir", "type": "string", "value": "libexec"},
    {"name": "datadir", "type": "string", "value": "share"},
    {"name": "shape", "type": "combo", "value": "", "choices": ["round", "flat"]},
    {"name": "loud", "type": "boolean", "value": True},
    {"name": "place", "type": "string", "value": ""},
]

INSTALLED = {
    "/build/libthing.so.1": "/usr/lib/libthing.so.1",
    "/build/thing.service": "/usr/lib/systemd/system/thing.service",
}


class Recipes(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)
        (self.tree / "LICENSE").write_bytes(LICENCE)
        (self.tree / "meson-info").mkdir()
        for name, known in {
            "projectinfo": {"version": "1.2"},
            "buildoptions": OPTIONS,
            "installed": INSTALLED,
        }.items():
            file = self.tree / f"meson-info/intro-{name}.json"
            file.write_text(json.dumps(known))

    def faults(self, old="", new=""):
        """What is said of the recipe with one text replaced."""
        self.assertIn(old, RECIPE)
        recipe = self.tree / "thing.bb"
        recipe.write_text(RECIPE.replace(old, new))
        said = io.StringIO()
        with contextlib.redirect_stderr(said):
            status = check_recipe.main(recipe, self.tree, self.tree)
        self.assertEqual(status, 1 if said.getvalue() else 0)
        return said.getvalue().replace(f"{recipe}: ", "")

    def test_a_right_one_has_no_faults(self):
        self.assertEqual(self.faults(), "")

    def test_options_exist_and_take_the_value(self):
        self.assertEqual(self.faults("Dshape", "Dform"), "-Dform: no such option\n")
        self.assertEqual(
            self.faults("=round", "=square"), "-Dshape=square: no such choice\n"
        )
        self.assertEqual(self.faults("=false", "=no"), "-Dloud=no: no such choice\n")

    def test_files_and_units_are_installed(self):
        self.assertEqual(
            self.faults("libthing", "libthink"),
            "${libdir}/libthink${SOLIBS}: nothing is installed there\n",
        )
        self.assertEqual(
            self.faults("thing.service", "think.service"),
            "think.service: no such unit is installed\n",
        )

    def test_the_licence_and_the_version_are_the_trees(self):
        self.assertIn("LICENSE: its MD5 sum is ", self.faults("md5=", "md5=0"))
        self.assertEqual(
            self.faults("1.2+git", "1.3+git"), "PV is 1.3+git, the project is 1.2\n"
        )

    def test_every_name_is_defined(self):
        self.assertEqual(
            self.faults('??= "own"', '??= "their"'),
            "their: no PACKAGECONFIG of this recipe\n",
        )
        self.assertEqual(
            self.faults("'own'", "'their'"), "their: no PACKAGECONFIG of this recipe\n"
        )
        self.assertIn("${SOLIB}: nobody defines it\n", self.faults("SOLIBS", "SOLIB"))

    def test_lines_are_a_recipes(self):
        self.assertEqual(
            self.faults("# A comment.", "A comment."),
            "line 2: no recipe's line: A comment.\n",
        )


if __name__ == "__main__":
    unittest.main()
