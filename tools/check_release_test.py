#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That what is missing from a release is found, and said in a line.

A library and a program are built as a release builds its own, or with one
thing left out.
"""

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
        self.write("main.cpp", SOURCE + "int main() { return inside(); }\n")

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
        self.assert_good(self.check_library())
        self.assert_good(self.check_program())

    def test_a_list_of_files_and_sizes_is_printed(self):
        done = self.check_library()
        size = (self.tree / "stage" / LIBRARY).stat().st_size
        self.assertEqual(done.stdout, f"{size:9} {LIBRARY}\n")

    def test_lazy_binding_is_found(self):
        done = self.check_library(["-Wl,-z,now"], ["-Wl,-z,lazy"])
        self.assert_found(done, "is bound lazily (no BIND_NOW)")

    def test_what_stays_writable_is_found(self):
        done = self.check_library(["-Wl,-z,relro"], ["-Wl,-z,norelro"])
        self.assert_found(done, "stays writable after it is bound (no GNU_RELRO)")

    def test_an_executable_stack_is_found(self):
        done = self.check_library(extra=["-Wl,-z,execstack"])
        self.assert_found(done, "has an executable stack")

    def test_a_program_at_a_fixed_address_is_found(self):
        done = self.check_program(["-fPIC"], ["-no-pie", "-fno-pie"])
        self.assert_found(done, "is not position-independent")

    def test_an_unprotected_stack_is_found(self):
        done = self.check_library(
            ["-fstack-protector-strong"], ["-fno-stack-protector"]
        )
        self.assert_found(done, "never calls __stack_chk_fail")

    def test_symbols_that_are_left_in_are_found(self):
        done = self.check_library(["-Wl,--strip-all"])
        self.assert_found(done, "is not stripped")

    def test_a_symbol_too_many_is_found(self):
        self.write("map", "{ global: shown; inside; local: *; };")
        done = self.check_library()
        self.assert_found(done, "shows inside, which exports.map does not list")

    def test_a_symbol_too_few_is_found(self):
        self.write("map", "{ global: inside; local: *; };")
        done = self.check_library()
        self.assert_found(done, "does not show shown, which exports.map lists")

    def test_what_a_program_shows_is_found(self):
        done = self.check_program(extra=["-pie", "-rdynamic"])
        self.assert_found(done, "shows inside")

    def test_a_type_that_a_program_shows_is_found(self):
        self.write(
            "main.cpp",
            SOURCE + "struct Fault {}; int main() { throw Fault{}; }\n",
        )
        done = self.check_program(extra=["-pie", "-rdynamic"])
        self.assert_found(done, "shows typeinfo for Fault")

    def test_a_directory_of_the_builder_s_is_found(self):
        done = self.check_program(extra=["-pie", "-Wl,-rpath,/home/builder"])
        self.assert_found(done, "looks for libraries in /home/builder")

    def test_a_directory_beside_is_allowed(self):
        self.assert_good(
            self.check_program(extra=["-pie", "-Wl,-rpath,$ORIGIN/../lib"])
        )

    def test_a_library_without_a_map_is_found(self):
        flags = FLAGS + LINK_FLAGS + SHARED
        self.build("usr/lib/libother.so", "source.cpp", *flags)
        self.assert_found(self.check(), "has no exports.map that is known here")

    def test_an_empty_directory_is_no_release(self):
        (self.tree / "stage").mkdir()
        done = self.check()
        self.assertEqual(done.returncode, 1)
        self.assertIn("there is no program or library; install first", done.stderr)


if __name__ == "__main__":
    unittest.main()
