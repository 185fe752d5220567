#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That all files are installed below the prefix, and where below it units and
policy are.

Run by meson test, which sets the environment: TREE, and its build directory
BUILD."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

TREE = Path(os.environ["TREE"])
BUILD = Path(os.environ["BUILD"])

UNITS = [
    "morrow.service",
    "morrow-return.service",
    "morrow-watch.service",
    "morrow-watch.timer",
]
POLICY = "xyz.openbmc_project.mctp.conf"

# The file of systemd now, and before 255, with a second prefix for /.
SYSTEMD = """\
prefix=/usr
systemd_system_unit_dir=${prefix}/lib/systemd/system
systemdsystemunitdir=${systemd_system_unit_dir}
Name: systemd
Description: systemd
Version: 257
"""
SYSTEMD_OF_ROOT = SYSTEMD.replace(
    "dir=${prefix}", "dir=${root_prefix}"
).replace("prefix=/usr\n", "prefix=/usr\nroot_prefix=\n")
SYSTEMD_OF_NO_PREFIX = SYSTEMD.replace("${prefix}", "/nowhere")

DBUS = """\
prefix=/usr
datadir=${prefix}/share
Name: dbus
Description: dbus
Version: 1.14
"""
DBUS_OF_NO_PREFIX = DBUS.replace("${prefix}", "/nowhere")


class Installation(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def pkg_config(self, **files):
        """Lets pkg-config find only the given files."""
        packages = self.root / "packages"
        packages.mkdir()
        for name, text in files.items():
            (packages / f"{name.replace('_', '-')}.pc").write_text(text)
        return {"PKG_CONFIG_LIBDIR": str(packages), "PKG_CONFIG_PATH": ""}

    def set_up(self, tree, prefix, *options, environment=None):
        """@return the build directory, and Meson's output"""
        build = self.root / "build"
        done = subprocess.run(
            ["meson", "setup", build, tree, f"--prefix={prefix}", *options],
            capture_output=True,
            text=True,
            check=False,
            env={**os.environ, **(environment or {})},
        )  # fmt: skip
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return build, done.stdout

    def directories(self, prefix, *options, environment=None):
        """@return the directories of the units and of the policy, from a project
        that only computes them"""
        project = self.root / "project"
        project.mkdir()
        (project / "directories").symlink_to(TREE / "packaging/directories")
        (project / "meson_options.txt").symlink_to(TREE / "meson_options.txt")
        (project / "meson.build").write_text(
            "project('directories')\nsubdir('directories')\n"
        )
        _, output = self.set_up(project, prefix, *options, environment=environment)
        return tuple(
            re.search(rf"{name} *: (.*)\n", output)[1]
            for name in ("systemd units", "D-Bus policy")
        )

    def test_stays_below_a_prefix_of_its_own(self):
        prefix = self.root / "prefix"
        build, _ = self.set_up(TREE, prefix, "-Dtests=disabled")
        names = json.loads((build / "meson-info" / "intro-installed.json").read_text())
        installed = {Path(file): Path(place) for file, place in names.items()}
        for place in installed.values():
            self.assertTrue(place.is_relative_to(prefix), place)
        # What is installed does not depend on the prefix, and is built already.
        for file in installed:
            # Links between libraries have no file here.
            if file.is_absolute() and not file.exists():
                shutil.copy(BUILD / file.relative_to(build), file)
        subprocess.run(
            ["meson", "install", "-C", build, "--no-rebuild"],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        for place in installed.values():
            self.assertTrue(place.exists(), place)
        for name in [*UNITS, POLICY]:
            self.assertEqual(len(list(prefix.rglob(name))), 1, name)

    def test_is_the_systems_with_its_prefix(self):
        environment = self.pkg_config(systemd=SYSTEMD_OF_ROOT, dbus_1=DBUS)
        self.assertEqual(
            self.directories("/usr", environment=environment),
            ("/lib/systemd/system", "/usr/share/dbus-1/system.d"),
        )

    def test_follows_the_prefix(self):
        environment = self.pkg_config(systemd=SYSTEMD, dbus_1=DBUS)
        self.assertEqual(
            self.directories("/opt/bmc", "--datadir=data", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_follows_the_prefix_where_systemd_has_two(self):
        environment = self.pkg_config(systemd=SYSTEMD_OF_ROOT)
        self.assertEqual(
            self.directories("/opt/bmc", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_has_a_fallback(self):
        environment = self.pkg_config()
        self.assertEqual(
            self.directories("/opt/bmc", "--datadir=data", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/data/dbus-1/system.d"),
        )

    def test_has_a_fallback_where_the_files_use_no_prefix(self):
        environment = self.pkg_config(
            systemd=SYSTEMD_OF_NO_PREFIX, dbus_1=DBUS_OF_NO_PREFIX
        )
        self.assertEqual(
            self.directories("/opt/bmc", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_goes_where_the_options_say(self):
        self.assertEqual(
            self.directories(
                "/opt/bmc",
                "-Dsystemd_unit_dir=/etc/systemd/system",
                "-Ddbus_policy_dir=/etc/dbus-1/system.d",
            ),
            ("/etc/systemd/system", "/etc/dbus-1/system.d"),
        )


if __name__ == "__main__":
    unittest.main()
