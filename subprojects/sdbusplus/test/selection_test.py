#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Which sdbusplus a project gets that has this one as its subproject.

The bundled library and generator also act as the system's: behind a pkg-config
file and a program sdbus++ in a directory of the test, usable or not.

Run by meson test, which sets the environment.
"""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(os.environ["SDBUSPLUS_SOURCE"]).resolve()
GENERATE = SOURCE / "selection/system/generate"
INTERFACE = "net.example.Sample"

PROJECT = """
project('consumer', 'cpp', meson_version: '>=1.0.1',
        default_options: ['cpp_std=c++20', 'werror=true', 'warning_level=3'])
bus = subproject('sdbusplus', default_options: [
    'interface_dir=' + meson.current_source_dir() / 'yaml',
    'interface=net.example.Sample',
])
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

PKG_CONFIG = """
Name: sdbusplus
Description: the system's
Version: 1.0.0
Requires: libsystemd
Libs: {library}
Cflags: -I{include}
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
        [str(part) for part in command],
        capture_output=True, text=True, check=False, env=env,
    )  # fmt: skip


class Project:
    """A project with a system of its own."""

    def __init__(self, test):
        directory = tempfile.TemporaryDirectory()
        test.addCleanup(directory.cleanup)
        self.test = test
        self.root = Path(directory.name)
        self.out = self.root / "out"
        self.system = self.root / "system"
        self.generator = self.root / "programs of the system/sdbus++"
        source = self.root / "project"
        (source / "subprojects").mkdir(parents=True)
        (source / "subprojects/sdbusplus").symlink_to(SOURCE)
        (source / "yaml").symlink_to(SOURCE / "test/yaml")
        (source / "meson.build").write_text(PROJECT)
        (source / "meson_options.txt").write_text(OPTIONS)
        (source / "consumer.cpp").write_text(CONSUMER)

    def meson(self, command, *arguments):
        env = {
            **os.environ,
            "PKG_CONFIG_PATH": str(self.system),
            "PATH": f"{self.generator.parent}:{os.environ['PATH']}",
        }
        return run("meson", command, *arguments, env=env)

    def set_up(self, *options):
        return self.meson(
            "setup", self.out, self.root / "project", "--buildtype=plain", *options
        )

    def build_and_start(self):
        done = self.meson("compile", "-C", self.out)
        self.test.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.test.assertEqual(run(self.out / "consumer").returncode, 0)

    def assert_bundled(self, why, done):
        self.test.assertEqual(done.returncode, 0, done.stdout)
        self.test.assertIn(f"CHOICE: bundled ({why})", done.stdout)
        self.test.assertIn("LIBRARY: internal", done.stdout)
        self.test.assertIn(f"GENERATOR: {self.out}/subprojects", done.stdout)

    def assert_system(self, done):
        self.test.assertEqual(done.returncode, 0, done.stdout)
        self.test.assertIn(f"CHOICE: system ({self.generator})", done.stdout)
        self.test.assertIn("LIBRARY: pkgconfig", done.stdout)
        self.test.assertIn(f"GENERATOR: {self.generator}", done.stdout)


class Selection(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """Builds without an sdbusplus on the system."""
        cls.bundled = Project(cls)
        cls.bundled.test = cls("__init__")
        cls.bundled_set_up = cls.bundled.set_up("--prefix=/usr")
        cls.bundled.build_and_start()

    @classmethod
    def addCleanup(cls, *arguments):
        cls.addClassCleanup(*arguments)

    def system(self):
        """A project whose system has a usable sdbusplus."""
        project = Project(self)
        include = project.system / "include"
        shutil.copytree(SOURCE / "include", include)
        library = self.bundled.out / "subprojects/sdbusplus/src/libsdbusplus.a"
        (project.system / "sdbusplus.pc").write_text(
            PKG_CONFIG.format(library=library, include=include)
        )
        self.install_generator(project)
        return project

    def install_generator(self, project, before=""):
        """One that runs a line of shell before it generates."""
        generator = self.bundled.out / "subprojects/sdbusplus/tools/sdbus++"
        project.generator.parent.mkdir(exist_ok=True)
        project.generator.write_text(f'#!/bin/sh\n{before}\nexec {generator} "$@"\n')
        project.generator.chmod(0o755)

    def test_auto_takes_the_bundled_one_where_there_is_no_other(self):
        self.bundled.assert_bundled(
            "pkg-config finds no sdbusplus", self.bundled_set_up
        )

    def test_bundled_installs_nothing(self):
        target = self.bundled.root / "target"
        done = self.bundled.meson("install", "-C", self.bundled.out, "--destdir", target)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual([path for path in target.rglob("*") if path.is_file()], [])

    def test_bundled_shares_no_symbols(self):
        program = self.bundled.out / "consumer"
        self.assertNotIn("sdbusplus", run("nm", "-CD", program).stdout)
        self.assertNotIn("sdbusplus", run("readelf", "-d", program).stdout)
        self.assertIn("sdbusplus::bus::bus", run("nm", "-C", program).stdout)

    def test_auto_takes_a_usable_one_of_the_system(self):
        project = self.system()
        project.assert_system(project.set_up())
        project.build_and_start()

        # Of another release, under the same name.
        self.install_generator(project, "echo '#include <sdbusplus/other_release.hpp>'")
        project.assert_bundled(
            f"what {project.generator} generates for {INTERFACE} does not build",
            project.set_up("--reconfigure"),
        )

    @unittest.skipIf(shutil.which("sdbus++"), "this system has an sdbus++")
    def test_auto_takes_no_library_without_generator(self):
        project = self.system()
        project.generator.unlink()
        project.assert_bundled("there is no sdbus++ on PATH", project.set_up())

    def test_auto_takes_no_library_that_does_not_compile(self):
        project = self.system()
        with open(project.system / "include/sdbusplus/bus/match.hpp", "a") as file:
            file.write("#error refused by this compiler\n")
        project.assert_bundled(
            "the system's sdbusplus/server.hpp does not compile", project.set_up()
        )

    def test_system_says_why_it_cannot(self):
        done = Project(self).set_up("-Dsdbusplus=system")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(
            "cannot build with the system's sdbusplus: pkg-config finds no"
            " sdbusplus; install it with its generator, or use"
            " -Dsdbusplus=auto",
            done.stdout,
        )

    def test_a_generator_that_fails_is_not_used(self):
        project = self.system()
        generated = project.root / "generated"
        for before, why in {
            '[ "$4" != server-cpp ] || exit 3': "server-cpp ends with status 3",
            "echo 'usage: sdbus++' >&2; echo 'no process '$4 >&2; exit 2": "no process"
            " common-header",
            "exec python3 -c 'import no_such_module'": "ModuleNotFoundError: No module"
            " named 'no_such_module'",
        }.items():
            with self.subTest(generator=before):
                self.install_generator(project, before)
                done = run(GENERATE, project.generator, SOURCE / "test/yaml",
                           INTERFACE, generated)  # fmt: skip
                self.assertEqual((done.returncode, done.stdout), (1, why + "\n"))


if __name__ == "__main__":
    unittest.main()
