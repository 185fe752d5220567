#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What check_release.py finds in a library and a program that are built as for a
release, or with one fault."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_release.py")
COMPILER = os.environ.get("CXX", "c++").split()
LIBRARY = "usr/lib/libplatform-hal.so.1"
PROGRAM = "usr/bin/program"

SOURCE = """
void filled(char*);
extern "C" int shown()
{
    char area[64];
    filled(area);
    return area[1];
}
void filled(char* area) { area[0] = 1; }
extern "C" int inside() { return shown(); }
"""
MAP = "# comment;\n{ global: shown; local: *; };\n"

FLAGS = ["-O1", "-fno-inline", "-fPIC", "-fstack-protector-strong", "-U_FORTIFY_SOURCE"]
LINK_FLAGS = ["-Wl,-z,relro", "-Wl,-z,now", "-Wl,--strip-all"]
SHARED = ["-shared", "-Wl,--version-script=map"]


class CheckRelease(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)
        self.write("platform/hal/exports.map", MAP)
        self.write("map", MAP)
        self.write("source.cpp", SOURCE)
        self.write(
            "main.cpp",
            SOURCE + "struct Fault {}; int main() { if (inside()) throw Fault{}; }\n",
        )

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def build(self, output, source, *flags):
        (self.tree / "stage" / output).parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(
            [*COMPILER, *flags, "-o", f"stage/{output}", source],
            cwd=self.tree,
            check=True,
        )

    def check_library(self, without=(), extra=()):
        flags = [f for f in FLAGS + LINK_FLAGS + SHARED if f not in without]
        self.build(LIBRARY, "source.cpp", *flags, *extra)
        return self.check()

    def check_program(self, without=(), extra=("-pie",)):
        flags = [f for f in FLAGS + LINK_FLAGS if f not in without]
        self.build(PROGRAM, "main.cpp", *flags, *extra)
        return self.check()

    def check(self):
        return subprocess.run(
            [sys.executable, CHECKER, self.tree / "stage", self.tree],
            capture_output=True,
            text=True,
            check=False,
        )

    def assert_good(self, done):
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)

    def assert_found(self, done, what):
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn(f"\n          {what}\n", done.stdout)

    def test_a_release_is_good(self):
        self.assert_good(self.check_program(extra=["-pie", "-Wl,-rpath,$ORIGIN/../lib"]))
        (self.tree / "stage" / PROGRAM).unlink()
        done = self.check_library()
        self.assert_good(done)
        size = (self.tree / "stage" / LIBRARY).stat().st_size
        self.assertEqual(done.stdout, f"{size:9} {LIBRARY}\n")

    def test_what_a_library_lacks_is_found(self):
        for without, extra, what in (
            ("-Wl,-z,now", "-Wl,-z,lazy", "is bound lazily (no BIND_NOW)"),
            ("-Wl,-z,relro", "-Wl,-z,norelro", "stays writable after it is bound"
             " (no GNU_RELRO)"),
            ("", "-Wl,-z,execstack", "has an executable stack"),
            ("-fstack-protector-strong", "-fno-stack-protector", "never calls"
             " __stack_chk_fail"),
            ("-Wl,--strip-all", "-Wl,--as-needed", "is not stripped"),
        ):  # fmt: skip
            with self.subTest(what=what):
                self.assert_found(self.check_library([without], [extra]), what)

    def test_what_a_program_lacks_or_exports_is_found(self):
        done = self.check_program(["-fPIC"], ["-no-pie", "-fno-pie"])
        self.assert_found(done, "is not position-independent")
        done = self.check_program(
            extra=["-pie", "-rdynamic", "-Wl,-rpath,/home/builder"]
        )
        self.assert_found(done, "looks for libraries in /home/builder")
        self.assert_found(done, "exports inside")
        self.assert_found(done, "exports typeinfo for Fault")

    def test_exports_are_those_of_the_map(self):
        self.write("map", "{ global: inside; local: *; };")
        done = self.check_library()
        self.assert_found(done, "exports inside, which exports.map does not list")
        self.assert_found(done, "does not export shown, which exports.map lists")
        self.build("usr/lib/libother.so", "source.cpp", *FLAGS, *LINK_FLAGS, *SHARED)
        self.assert_found(self.check(), "has no known exports.map")

    def test_an_empty_directory_is_no_release(self):
        (self.tree / "stage").mkdir()
        done = self.check()
        self.assertEqual(done.returncode, 1)
        self.assertIn("there is no program or library; install first", done.stderr)


if __name__ == "__main__":
    unittest.main()
