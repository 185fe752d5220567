#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the recipes with the tree, without BitBake.

Run by meson test, which sets the environment.
"""

import hashlib
import json
import os
import re
import unittest
from fnmatch import fnmatch
from pathlib import Path

SOURCE = Path(os.environ["SOURCE"])
BUILD = Path(os.environ["BUILD"])
RECIPES = [
    re.sub("(?m)^#.*", "", file.read_text())
    for file in Path(os.environ["RECIPES"]).iterdir()
]


def introspected(what):
    return json.loads((BUILD / f"meson-info/intro-{what}.json").read_text())


OPTIONS = {option["name"]: option for option in introspected("buildoptions")}
INSTALLED = introspected("installed").values()


def matches(pattern):
    """All that matches a pattern in the recipes; nothing is an error."""
    found = [match for recipe in RECIPES for match in re.findall(pattern, recipe)]
    assert found, f"no recipe has {pattern}"
    return found


def words(values):
    """The words of quoted values, whose lines may be continued."""
    return " ".join(values).replace("\\\n", "").split()


def expanded(path):
    """A pattern of installed files, without BitBake's variables."""
    prefix = OPTIONS["prefix"]["value"]
    for variable, text in {
        "${datadir}": os.path.join(prefix, OPTIONS["datadir"]["value"]),
        "${libdir}": os.path.join(prefix, OPTIONS["libdir"]["value"]),
        "${nonarch_libdir}": os.path.join(prefix, "lib"),
        "${SOLIBS}": ".so.*",
    }.items():
        path = path.replace(variable, text)
    return path


class Recipes(unittest.TestCase):
    def test_pass_options_that_exist_with_values_that_they_take(self):
        for name, value in matches(r"-D(\w+)=([^\s,\"]+)"):
            with self.subTest(option=name):
                option = OPTIONS.get(name)
                self.assertIsNotNone(option, "there is no such option")
                if option["type"] == "boolean":
                    self.assertIn(value, ["true", "false"])
                self.assertIn(value, option.get("choices", [value]))

    def test_package_files_that_are_installed(self):
        lists = matches(r'FILES:\$\{PN\}[\w-]* \+?= "([^"]*)"')
        units = matches(r'SYSTEMD_SERVICE:\$\{PN\} = "([^"]*)"')
        patterns = [expanded(path) for path in words(lists)]
        # systemd decides where units are installed.
        patterns += ["*/" + unit for unit in words(units)]
        for pattern in patterns:
            with self.subTest(file=pattern):
                found = any(fnmatch(path, pattern) for path in INSTALLED)
                self.assertTrue(found, "nothing is installed there")

    def test_install_from_the_source_what_is_there(self):
        for pattern in matches(r"\$\{S\}/(\S+)"):
            with self.subTest(file=pattern):
                self.assertTrue(any(SOURCE.glob(pattern)), "there is no such file")

    def test_have_the_licences_sum(self):
        for file, stated in matches(r"file://(\S+);md5=(\w+)"):
            actual = hashlib.md5((SOURCE / file).read_bytes()).hexdigest()
            self.assertEqual(stated, actual, file)

    def test_have_the_projects_version(self):
        version = introspected("projectinfo")["version"]
        self.assertEqual(matches('PV = "([^"]*)"'), [version + "+git"])


if __name__ == "__main__":
    unittest.main()
