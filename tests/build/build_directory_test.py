#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How tools/shell/common.sh sets up build directories, with an empty project."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

COMMON = Path(__file__).resolve().parents[2] / "tools" / "shell" / "common.sh"

PROJECT = """\
project('empty', meson_version: '>=1.0.1')
summary('marked', get_option('mark'))
"""


class BuildDirectory(unittest.TestCase):
    def setUp(self):
        self.tree = Path(self.entered(tempfile.TemporaryDirectory()))
        (self.tree / "meson.build").write_text(PROJECT)
        (self.tree / "meson_options.txt").write_text("option('mark', type: 'string')\n")
        self.directory = self.tree / "build" / "some"

    def entered(self, context):
        self.addCleanup(context.__exit__, None, None, None)
        return context.__enter__()

    def call(self, function, *arguments):
        """Calls a function of common.sh, as a script in the tree would."""
        return subprocess.run(
            ["bash", "-euc", f'. "{COMMON}"; top=$PWD; "$@"', "a-script", function]
            + [str(argument) for argument in arguments],
            cwd=self.tree,
            capture_output=True,
            text=True,
            check=False,
        )

    def configure(self, *options):
        done = self.call("configure", self.directory, *options)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        subprocess.run(
            ["ninja", "-C", self.directory], check=True, stdout=subprocess.DEVNULL
        )
        return done.stdout

    def test_is_set_up_once(self):
        self.assertIn("The Meson build system", self.configure())
        self.assertNotIn("The Meson build system", self.configure("-Dmark=x"))

    def test_is_set_up_again_after_an_interruption(self):
        self.configure()
        # The state after an interruption near the end.
        (self.directory / "meson-private" / "build.dat").unlink()
        (self.directory / "setup-complete").unlink()
        self.assertIn("The Meson build system", self.configure())

    def test_is_not_complete_when_the_setup_fails(self):
        done = self.call("configure", self.directory, "-Dunknown=1")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("The Meson build system", self.configure())

    def test_follows_its_cross_file(self):
        cross = self.tree / "cross.ini"
        cross.write_text("[properties]\n")
        self.configure("--cross-file", cross)
        again = self.configure("--cross-file", cross, "-Dmark=x")
        self.assertNotIn("The Meson build system", again)
        os.utime(self.directory / "setup-complete", (1, 1))
        self.assertIn("The Meson build system", self.configure("--cross-file", cross))

    def test_needs_a_tree_that_can_be_written_to(self):
        (self.tree / "build").write_text("a file, where nobody can make a directory")
        done = self.call("make_build_directory")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(
            done.stderr,
            f"a-script: cannot write in {self.tree}/build, where everything is"
            " built: run this in a copy of the tree that you may write to\n",
        )


if __name__ == "__main__":
    unittest.main()
