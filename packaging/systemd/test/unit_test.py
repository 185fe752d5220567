#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks of the units without a running systemd.

Run by meson test, which says in the environment what it has built.
"""

import json
import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

UNITS = Path(os.environ["UNITS"])
UNIT = UNITS / "morrow.service"
RETURN_UNIT = UNITS / "morrow-return.service"
WATCH_UNIT = UNITS / "morrow-watch.service"
TIMER = Path(os.environ["TIMER"])
WATCH = Path(os.path.normpath(os.environ["WATCH"]))
DAEMON = Path(os.environ["DAEMON"])
INSTALLED = json.loads(Path(os.environ["INSTALLED"]).read_text())
INSTALLED_DAEMON = INSTALLED[str(DAEMON)]
INSTALLED_WATCH = INSTALLED[str(WATCH)]

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


def settings(unit=UNIT):
    """The unit's lines, as pairs."""
    lines = unit.read_text().splitlines()
    return [line.split("=", 1) for line in lines if "=" in line and line[0] != "#"]


class Unit(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def complaints(self):
        """What systemd says of our units when it reads them, with the programs
        of this tree in place of the installed ones."""
        (self.root / "dbus.service").write_text(BROKER)
        shutil.copy(TIMER, self.root)
        for unit in (UNIT, RETURN_UNIT, WATCH_UNIT):
            text = unit.read_text().replace(INSTALLED_WATCH, str(WATCH))
            text = text.replace(INSTALLED_DAEMON, str(DAEMON))
            (self.root / unit.name).write_text(text)
        units = [path for path in self.root.iterdir() if "morrow" in path.name]
        done = analyze("verify", "--man=no", "--recursive-errors=no", *units)
        # It says more, of other units of this machine.
        return [line for line in done.stderr.splitlines() if "morrow" in line]

    def test_starts_the_daemon_where_it_is_installed(self):
        self.assertIn(["ExecStart", INSTALLED_DAEMON], settings())

    def test_watches_the_daemon_with_the_installed_program(self):
        self.assertIn(["ExecStart", INSTALLED_WATCH], settings(WATCH_UNIT))

    def test_limits_no_number_of_starts(self):
        for unit in (UNIT, RETURN_UNIT):
            with self.subTest(unit=unit.name):
                self.assertIn(["StartLimitIntervalSec", "0"], settings(unit))

    def test_is_read_by_systemd_without_a_warning(self):
        self.assertEqual(self.complaints(), [])

    def test_leaves_an_exposure_of_at_most_1_1(self):
        for unit in (UNIT, RETURN_UNIT, WATCH_UNIT):
            with self.subTest(unit=unit.name):
                done = analyze("security", "--offline=true", "--threshold=11", unit)
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_writes_no_core_files(self):
        for unit in (UNIT, RETURN_UNIT, WATCH_UNIT):
            with self.subTest(unit=unit.name):
                self.assertIn(["LimitCORE", "0"], settings(unit))

    def test_bounds_memory_descriptors_and_records(self):
        for setting in (
            ["MemoryMax", "64M"],
            ["Environment", "GLIBC_TUNABLES=glibc.malloc.mmap_threshold=131072"],
            ["LimitNOFILE", "4096"],
            ["LogRateLimitIntervalSec", "10min"],
            ["LogRateLimitBurst", "20"],
        ):
            self.assertIn(setting, settings())


# What the watch calls; while it sleeps, the list of connections changes.
TOOLS = {
    "systemctl": """\
case $* in
*MainPID*) echo 7 ;;
*try-restart*) touch restarted ;;
esac
""",
    "busctl": "touch asked; cat list",
    "sleep": "rm -f list; [ ! -e second ] || mv second list",
}
BOTH = ":1.5 7 morrow\n:1.6 7 morrow\n:1.7 8 other\n"
ONE = ":1.6 7 morrow\n:1.7 8 other\n:1.8 7 morrow\n"


class Watch(unittest.TestCase):
    def restarts(self, first, second):
        """Whether it restarts the daemon. A list of None cannot be had."""
        with tempfile.TemporaryDirectory() as directory:
            place = Path(directory)
            for name, text in TOOLS.items():
                (place / name).write_text(f"#!/bin/sh\n{text}\n")
                (place / name).chmod(0o755)
            for name, text in (("list", first), ("second", second)):
                if text is not None:
                    (place / name).write_text(text)
            path = f"{place}:{os.environ['PATH']}"
            subprocess.run(
                ["sh", WATCH], cwd=place, env={"PATH": path}, check=True,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            )  # fmt: skip
            self.assertTrue((place / "asked").exists())
            return (place / "restarted").exists()

    def test_restarts_a_daemon_that_has_lost_a_connection(self):
        self.assertFalse(self.restarts(BOTH, BOTH))
        self.assertTrue(self.restarts(BOTH, ONE))

    def test_leaves_one_alone_while_the_broker_cannot_be_asked(self):
        self.assertFalse(self.restarts(None, BOTH))
        self.assertFalse(self.restarts(BOTH, None))


if __name__ == "__main__":
    if shutil.which("systemd-analyze") is None:
        print("systemd-analyze is missing: install the package systemd")
        raise SystemExit(77)
    unittest.main()
