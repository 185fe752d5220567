#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whose sdbusplus a project gets that has this one as its subproject.

The system's sdbusplus is played by this very library and generator, behind a
pkg-config file and a program sdbus++ in a directory of the test, usable or with
something wrong.

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

# As the genuine one: the help names no process, only that there is one.
GENERATOR = """#!/bin/sh
if [ "$1" = --help ]; then
    echo 'usage: sdbus++ [-h] [-r ROOTDIR] TYPE PROCESS ITEM [ITEM ...]'
    exit
fi
exec '{generator}' "$@"
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
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.built = Path(scratch.name)
        for command in (
            ["setup", cls.built, SOURCE, "-Dtests=disabled", "--buildtype", "plain"],
            ["compile", "-C", cls.built],
        ):
            done = run("meson", *map(str, command))
            if done.returncode != 0:
                raise RuntimeError(done.stdout + done.stderr)

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        self.system = self.root / "system"
        self.generator = self.root / "programs of the system/sdbus++"
        self.project = self.root / "project"
        (self.project / "subprojects").mkdir(parents=True)
        (self.project / "subprojects/sdbusplus").symlink_to(SOURCE)
        (self.project / "yaml").symlink_to(SOURCE / "test/yaml")
        (self.project / "meson.build").write_text(PROJECT)
        (self.project / "meson_options.txt").write_text(OPTIONS)
        (self.project / "consumer.cpp").write_text(CONSUMER)

    def install(self):
        """Gives the system an sdbusplus."""
        include = self.system / "include"
        shutil.copytree(SOURCE / "include", include)
        (self.system / "sdbusplus.pc").write_text(
            PKG_CONFIG.format(
                library=self.built / "src/libsdbusplus.a", include=include
            )
        )
        self.install_generator(
            GENERATOR.format(generator=self.built / "tools/sdbus++")
        )

    def install_generator(self, script):
        self.generator.parent.mkdir(exist_ok=True)
        self.generator.write_text(script)
        self.generator.chmod(0o755)

    def environment(self):
        env = dict(os.environ)
        env["PKG_CONFIG_PATH"] = str(self.system)
        env["PATH"] = f"{self.generator.parent}:{env['PATH']}"
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
        self.assertIn(f"CHOICE: system ({self.generator})", done.stdout)
        self.assertIn("LIBRARY: pkgconfig", done.stdout)
        self.assertIn(f"GENERATOR: {self.generator}", done.stdout)

    def assert_no_generator(self, why, script):
        """That this generator is not used, and why."""
        self.install()
        self.install_generator(script)
        self.assert_bundled(
            f"{self.generator} does not generate net.example.Sample: {why}"
        )

    def build_and_start(self):
        out = self.root / "out"
        done = run("meson", "compile", "-C", str(out), env=self.environment())
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual(run(str(out / "consumer")).returncode, 0)

    def test_auto_takes_a_usable_one_of_the_system(self):
        self.install()
        self.assert_system()
        self.build_and_start()

    def test_auto_takes_the_bundled_one_where_there_is_no_other(self):
        self.assert_bundled("pkg-config finds no sdbusplus")
        self.build_and_start()

    @unittest.skipIf(shutil.which("sdbus++"), "this system has an sdbus++")
    def test_auto_takes_no_library_without_generator(self):
        self.install()
        self.generator.unlink()
        self.assert_bundled("there is no sdbus++ on PATH")

    def test_auto_takes_no_generator_without_a_process(self):
        self.assert_no_generator(
            "sdbus++: error: argument PROCESS: invalid choice: 'common-header'",
            "#!/bin/sh\n"
            "echo 'usage: sdbus++ [-h] TYPE PROCESS ITEM' >&2\n"
            'echo "sdbus++: error: argument PROCESS: invalid choice: \'$4\'" >&2\n'
            "exit 2\n",
        )

    def test_auto_takes_no_generator_without_its_python_modules(self):
        self.assert_no_generator(
            "ModuleNotFoundError: No module named 'no_such_module'",
            "#!/usr/bin/env python3\nimport no_such_module\n",
        )

    def test_auto_takes_no_generator_that_fails_without_a_word(self):
        self.assert_no_generator(
            "server-cpp ends with status 3",
            GENERATOR.format(generator=self.built / "tools/sdbus++").replace(
                "exec", '[ "$4" != server-cpp ] || exit 3\nexec'
            ),
        )

    def test_auto_takes_no_generator_of_something_else(self):
        self.install()
        self.install_generator("#!/bin/sh\necho common-header, server-cpp\n")
        self.assert_bundled(
            f"what {self.generator} generates for net.example.Sample does not build"
        )

    def test_auto_takes_no_generator_of_another_release(self):
        self.install()
        self.install_generator(
            GENERATOR.format(generator=self.built / "tools/sdbus++").replace(
                "exec", 'echo "#include <sdbusplus/of_another_release.hpp>"\nexec'
            )
        )
        self.assert_bundled(
            f"what {self.generator} generates for net.example.Sample does not build"
        )

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

    def test_installs_nothing_beside_a_project(self):
        self.assert_bundled("pkg-config finds no sdbusplus", "--prefix=/usr")
        self.build_and_start()
        target = self.root / "target"
        done = run("meson", "install", "-C", str(self.root / "out"),
                   "--destdir", str(target))  # fmt: skip
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual([path for path in target.rglob("*") if path.is_file()], [])

    def test_gives_a_program_its_code_and_no_symbols(self):
        self.assert_bundled("pkg-config finds no sdbusplus")
        self.build_and_start()
        program = str(self.root / "out/consumer")
        self.assertNotIn("sdbusplus", run("nm", "-CD", program).stdout)
        self.assertNotIn("sdbusplus", run("readelf", "-d", program).stdout)
        self.assertIn("sdbusplus::bus::bus", run("nm", "-C", program).stdout)


if __name__ == "__main__":
    unittest.main()
