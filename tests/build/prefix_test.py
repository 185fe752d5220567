#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Where an installation's files go: below its prefix, all of them, so that any
user can install where they may write.

Run by meson test, which says in the environment where the tree is (TREE) and
where it is built (BUILD)."""

import json
import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

TREE = Path(os.environ["TREE"])
BUILD = Path(os.environ["BUILD"])

UNITS = ["morrow.service", "morrow-return.service"]
POLICY = "xyz.openbmc_project.mctp.conf"

# As systemd has them: of today, and with a second prefix for /.
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
        """Has pkg-config find this system's packages, but of systemd and D-Bus
        only what is given."""
        packages = self.root / "packages"
        packages.mkdir()
        path = subprocess.run(
            ["pkg-config", "--variable", "pc_path", "pkg-config"],
            capture_output=True,
            text=True,
            check=True,
        ).stdout.strip()
        for directory in path.split(":"):
            for file in sorted(Path(directory).glob("*.pc")):
                link = packages / file.name
                if file.stem not in ("systemd", "dbus-1") and not link.exists():
                    link.symlink_to(file)
        for name, text in files.items():
            (packages / f"{name.replace('_', '-')}.pc").write_text(text)
        return {"PKG_CONFIG_LIBDIR": str(packages), "PKG_CONFIG_PATH": ""}

    def set_up(self, prefix, *options, environment=None):
        """@return the build directory, and where each file is to go"""
        build = self.root / "build"
        done = subprocess.run(
            ["meson", "setup", build, TREE, f"--prefix={prefix}",
             "-Dtests=disabled", *options],
            capture_output=True,
            text=True,
            check=False,
            env={**os.environ, **(environment or {})},
        )  # fmt: skip
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.summary = done.stdout
        installed = json.loads(
            (build / "meson-info" / "intro-installed.json").read_text()
        )
        return build, {Path(file): Path(place) for file, place in installed.items()}

    def places(self, prefix, *options, environment=None):
        """@return the directories of the units and of the policy"""
        _, installed = self.set_up(
            prefix, "-Dboard=disabled", *options, environment=environment
        )
        of = {place.name: place.parent for place in installed.values()}
        self.assertEqual(of[UNITS[0]], of[UNITS[1]])
        self.assertRegex(self.summary, rf"systemd units *: {of[UNITS[0]]}\n")
        self.assertRegex(self.summary, rf"D-Bus policy *: {of[POLICY]}\n")
        return str(of[UNITS[0]]), str(of[POLICY])

    def test_stays_below_a_prefix_of_its_own(self):
        prefix = self.root / "prefix"
        build, installed = self.set_up(prefix)
        for place in installed.values():
            self.assertTrue(place.is_relative_to(prefix), place)
        # What is installed is built the same for any prefix, and was.
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
            self.places("/usr", environment=environment),
            ("/lib/systemd/system", "/usr/share/dbus-1/system.d"),
        )

    def test_follows_the_prefix(self):
        environment = self.pkg_config(systemd=SYSTEMD, dbus_1=DBUS)
        self.assertEqual(
            self.places("/opt/bmc", "--datadir=data", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_follows_the_prefix_where_systemd_has_two(self):
        environment = self.pkg_config(systemd=SYSTEMD_OF_ROOT)
        self.assertEqual(
            self.places("/opt/bmc", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_needs_no_answer(self):
        environment = self.pkg_config()
        self.assertEqual(
            self.places("/opt/bmc", "--datadir=data", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/data/dbus-1/system.d"),
        )

    def test_goes_nowhere_else_when_the_answer_knows_no_prefix(self):
        environment = self.pkg_config(
            systemd=SYSTEMD_OF_NO_PREFIX, dbus_1=DBUS_OF_NO_PREFIX
        )
        self.assertEqual(
            self.places("/opt/bmc", environment=environment),
            ("/opt/bmc/lib/systemd/system", "/opt/bmc/share/dbus-1/system.d"),
        )

    def test_goes_where_the_options_say(self):
        self.assertEqual(
            self.places(
                "/opt/bmc",
                "-Dsystemd_unit_dir=/etc/systemd/system",
                "-Ddbus_policy_dir=/etc/dbus-1/system.d",
            ),
            ("/etc/systemd/system", "/etc/dbus-1/system.d"),
        )


if __name__ == "__main__":
    unittest.main()
