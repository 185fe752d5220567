#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What can be said of the unit without a running systemd.

Run by meson test, which says in the environment what it has built and where
that is installed.
"""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

UNIT = Path(os.environ["UNIT"])
RETURN_UNIT = Path(os.environ["RETURN_UNIT"])
DAEMON = Path(os.environ["DAEMON"])
INSTALLED_DAEMON = os.environ["INSTALLED_DAEMON"]

# So that nothing depends on which broker this machine has, or whether it has
# one that systemd starts.
BROKER = """\
[Unit]
Description=a broker
[Service]
Type=notify
ExecStart=/bin/true
"""


def analyze(*arguments):
    return subprocess.run(
        ["systemd-analyze", "--no-pager", *map(str, arguments)],
        capture_output=True,
        text=True,
        check=False,
        env={**os.environ, "LC_ALL": "C"},
    )


def settings():
    """The unit's lines, as pairs."""
    lines = UNIT.read_text().splitlines()
    return [line.split("=", 1) for line in lines if "=" in line and line[0] != "#"]


class Unit(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def verify(self, text):
        """Has systemd read it, with the daemon that is built in place of the
        installed one."""
        (self.root / "dbus.service").write_text(BROKER)
        unit = self.root / "morrow.service"
        unit.write_text(text.replace(INSTALLED_DAEMON, str(DAEMON)))
        return analyze("verify", "--man=no", unit)

    def test_starts_the_daemon_where_it_is_installed(self):
        self.assertIn(["ExecStart", INSTALLED_DAEMON], settings())

    def test_is_understood_by_systemd_without_a_complaint(self):
        done = self.verify(UNIT.read_text())
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_of_its_return_is_understood_too(self):
        shutil.copy(RETURN_UNIT, self.root)
        self.verify(UNIT.read_text())
        done = analyze("verify", "--man=no", self.root / RETURN_UNIT.name)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_would_be_complained_about_with_a_misspelt_setting(self):
        done = self.verify(UNIT.read_text() + "\n[Service]\nProtectSytem=yes\n")
        self.assertIn("Unknown key 'ProtectSytem'", done.stderr)

    def test_leaves_an_exposure_of_at_most_1_1(self):
        done = analyze("security", "--offline=true", "--threshold=11", UNIT)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_would_leave_more_without_its_filter_of_system_calls(self):
        unit = self.root / "morrow.service"
        unit.write_text(UNIT.read_text().replace("SystemCallFilter", "#"))
        done = analyze("security", "--offline=true", "--threshold=11", unit)
        self.assertNotEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    if shutil.which("systemd-analyze") is None:
        print("systemd-analyze is missing: install the package systemd")
        raise SystemExit(77)
    unittest.main()
