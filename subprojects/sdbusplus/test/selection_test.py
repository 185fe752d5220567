#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whose sdbusplus a project gets that has this one as its subproject.

The system's sdbusplus is played by this very library, installed on its own
into a directory of the test, whole or with something spoilt.

Run by meson test, which says in the environment where the sources are.
"""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(os.environ["SDBUSPLUS_SOURCE"]).resolve()

PROJECT = """
project('consumer', 'cpp', meson_version: '>=1.0.1',
        default_options: ['cpp_std=c++20', 'werror=true', 'warning_level=3'])
bus = subproject('sdbusplus')
dep = dependency('sdbusplus', include_type: 'system')
prog = find_program('sdbus++')
message('CHOICE:', bus.get_variable('sdbusplus_choice'))
message('LIBRARY:', dep.type_name())
message('GENERATOR:', prog.full_path())
generated = custom_target(
    output: 'common.hpp', capture: true,
    command: [prog, '-r', meson.project_source_root() / 'yaml',
              'interface', 'common-header', 'net.example.Sample'])
executable('consumer', 'consumer.cpp', generated, dependencies: dep)
"""

OPTIONS = """
option('sdbusplus', type: 'combo', choices: ['auto', 'system', 'bundled'])
option('tests', type: 'feature', value: 'disabled')
"""

CONSUMER = """
#include "common.hpp"
#include <sdbusplus/server.hpp>
int main()
{
    return sdbusplus::bus_t(nullptr).get_fd() < 0 ? 0 : 1;
}
"""


def run(*command, env=None):
    return subprocess.run(
        command, capture_output=True, text=True, check=False, env=env
    )


class Selection(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.scratch.cleanup)
        root = Path(cls.scratch.name)
        cls.prefix = root / "whole"
        build = root / "build"
        for command in (
            ["setup", build, SOURCE, "--prefix", cls.prefix, "--libdir", "lib",
             "-Dtests=disabled", "--buildtype", "plain"],
            ["install", "-C", build],
        ):  # fmt: skip
            done = run("meson", *map(str, command))
            if done.returncode != 0:
                raise RuntimeError(done.stdout + done.stderr)

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        self.system = self.root / "system"
        self.project = self.root / "project"
        (self.project / "subprojects").mkdir(parents=True)
        (self.project / "subprojects/sdbusplus").symlink_to(SOURCE)
        (self.project / "yaml").symlink_to(SOURCE / "test/yaml")
        (self.project / "meson.build").write_text(PROJECT)
        (self.project / "meson_options.txt").write_text(OPTIONS)
        (self.project / "consumer.cpp").write_text(CONSUMER)

    def install(self):
        """Gives the system an sdbusplus."""
        shutil.copytree(self.prefix, self.system, symlinks=True)
        pc = self.system / "lib/pkgconfig/sdbusplus.pc"
        pc.write_text(pc.read_text().replace(str(self.prefix), str(self.system)))

    def environment(self):
        env = dict(os.environ)
        env["PKG_CONFIG_PATH"] = str(self.system / "lib/pkgconfig")
        env["PATH"] = f"{self.system / 'bin'}:{env['PATH']}"
        env["LD_LIBRARY_PATH"] = str(self.system / "lib")
        return env

    def setup(self, *options):
        return run(
            "meson", "setup", str(self.root / "out"), str(self.project), *options,
            env=self.environment(),
        )  # fmt: skip

    def assert_bundled(self, why, *options):
        done = self.setup(*options)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn(f"CHOICE: bundled ({why})", done.stdout)
        self.assertIn("LIBRARY: internal", done.stdout)
        self.assertIn(
            f"GENERATOR: {self.root}/out/subprojects/sdbusplus/tools/sdbus++",
            done.stdout,
        )

    def assert_system(self, *options):
        done = self.setup(*options)
        self.assertEqual(done.returncode, 0, done.stdout)
        generator = self.system / "bin/sdbus++"
        self.assertIn(f"CHOICE: system ({generator})", done.stdout)
        self.assertIn("LIBRARY: pkgconfig", done.stdout)
        self.assertIn(f"GENERATOR: {generator}", done.stdout)

    def build_and_start(self):
        env = self.environment()
        done = run("meson", "compile", "-C", str(self.root / "out"), env=env)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        program = str(self.root / "out/consumer")
        self.assertEqual(run(program, env=env).returncode, 0)
        return run("ldd", program, env=env).stdout

    def test_auto_takes_a_usable_one_of_the_system(self):
        self.install()
        self.assert_system()
        self.assertIn(f"{self.system}/lib/libsdbusplus.so.1", self.build_and_start())

    def test_auto_takes_the_bundled_one_where_there_is_no_other(self):
        self.assert_bundled("pkg-config finds no sdbusplus")
        self.assertIn(
            "out/subprojects/sdbusplus/src/libsdbusplus.so.1",
            self.build_and_start(),
        )

    @unittest.skipIf(shutil.which("sdbus++"), "this system has an sdbus++")
    def test_auto_takes_no_library_without_generator(self):
        self.install()
        (self.system / "bin/sdbus++").unlink()
        self.assert_bundled("there is no sdbus++ on PATH")

    def test_auto_takes_no_generator_without_common_header(self):
        self.install()
        generator = self.system / "bin/sdbus++"
        generator.write_text("#!/bin/sh\necho server-header, server-cpp\n")
        self.assert_bundled(f"{generator} does not know common-header")

    def test_auto_takes_no_library_that_does_not_compile(self):
        self.install()
        with open(self.system / "include/sdbusplus/bus/match.hpp", "a") as file:
            file.write("#error refused by this compiler\n")
        self.assert_bundled("the system's sdbusplus/server.hpp does not compile")

    def test_bundled_takes_the_bundled_one_in_any_case(self):
        self.install()
        self.assert_bundled("asked for", "-Dsdbusplus=bundled")

    def test_system_takes_a_usable_one(self):
        self.install()
        self.assert_system("-Dsdbusplus=system")

    def test_system_says_why_it_cannot(self):
        done = self.setup("-Dsdbusplus=system")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(
            "cannot build with the system's sdbusplus: pkg-config finds no"
            " sdbusplus; install it with its generator, or use"
            " -Dsdbusplus=auto",
            done.stdout,
        )

    def installed(self, *options):
        """What the project installs, with these options set anew."""
        target = self.root / "target"
        for command in (
            ["configure", self.root / "out", *options],
            ["install", "-C", self.root / "out", "--destdir", target],
        ):
            done = run("meson", *map(str, command))
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        files = [str(p.relative_to(target)) for p in target.rglob("*") if p.is_file()]
        shutil.rmtree(target)
        return files

    def test_installs_beside_a_project_only_what_it_needs_to_run(self):
        self.assert_bundled("pkg-config finds no sdbusplus", "--prefix=/usr",
                            "--libdir=lib")  # fmt: skip
        self.build_and_start()
        self.assertEqual(self.installed(), ["usr/lib/libsdbusplus.so.1"])
        self.assertEqual(
            self.installed("-Dsdbusplus:private_libdir=own"),
            ["usr/lib/own/libsdbusplus.so.1"],
        )


if __name__ == "__main__":
    unittest.main()
