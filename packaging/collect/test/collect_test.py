#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""morrow-collect with busybox: on the simulated board, and where nothing is.

Run by meson test, which sets the environment: the files COLLECT and POLICY, the
programs BOARD and DAEMON."""

import os
import shutil
import signal
import subprocess
import tarfile
import tempfile
import unittest
from pathlib import Path

COLLECT = Path(os.environ["COLLECT"])
BOARD = [
    os.environ["BOARD"],
    f"--daemon={os.environ['DAEMON']}",
    f"--policy={os.environ['POLICY']}",
    "--",
]
BUSYBOX = shutil.which("busybox")


@unittest.skipUnless(BUSYBOX, "there is no busybox")
class Collect(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        self.archive = self.root / "collected.tar"
        # Nothing but busybox's tools.
        self.tools = self.root / "bin"
        self.tools.mkdir()
        subprocess.run([BUSYBOX, "--install", "-s", self.tools], check=True)
        # The daemons of other tests are none of this board.
        self.tool("pidof", "exit 1")
        self.temporary = self.root / "tmp"
        self.temporary.mkdir()

    def tool(self, name, script):
        program = self.tools / name
        program.unlink(missing_ok=True)
        program.write_text(f"#!{BUSYBOX} sh\n{script}\n")
        program.chmod(0o755)

    def environment(self, *more):
        path = ":".join([str(self.tools), *more])
        return {**os.environ, "PATH": path, "TMPDIR": str(self.temporary)}

    def collect(self, *arguments, around=(), path=()):
        done = subprocess.run(
            [*around, BUSYBOX, "sh", COLLECT, *arguments],
            capture_output=True,
            text=True,
            check=False,
            env=self.environment(*path),
        )
        self.assertEqual(list(self.temporary.iterdir()), [])
        return done

    def collected(self):
        """What is in the archive."""
        with tarfile.open(self.archive) as archive:
            return {
                Path(member.name).name: archive.extractfile(member).read()
                for member in archive
                if member.isfile()
            }

    def test_board(self):
        """With a running daemon, all that the simulated board has."""
        done = self.collect(
            "-s1", "-o", self.archive, around=BOARD, path=os.environ["PATH"].split(":")
        )
        self.assertEqual((done.returncode, done.stdout), (0, f"{self.archive}\n"))
        files = self.collected()
        for name, content in {
            "objects": b'"/xyz/openbmc_project/mctp/0/157"',
            "tree": b"/xyz/openbmc_project/mctp/0/29",
            "host-state": b"HostState.Running",
            "bus-names": b"xyz.openbmc_project.mctp",
            "driver": b"fff11000.i3c -> ",
            "class-entries": b"i3c-mctp-1 -> ",
            "device-nodes": b"/dev/i3c-mctp-0",
            "platform-values": b"/run/platform/io/CPU_VENDOR:0",
            "process-threads": b"comm:morrow",
            "process-status": b"Name:\tmorrow",
        }.items():
            self.assertIn(content, files[name], name)
        for name in ("semaphores", "shared-memory"):
            self.assertEqual(len(files[name].splitlines()), 3, name)
        # A file of network analysers, with what the daemon has asked every 100 ms meanwhile.
        self.assertEqual(files["bus.pcapng"][:4], b"\n\r\r\n")
        self.assertIn(b"CurrentHostState", files["bus.pcapng"])
        # There is no systemd, and nobody had to be told of the capture's end.
        self.assertIn("not collected: unit: systemctl failed: ", done.stderr)
        self.assertNotIn("Terminated", done.stderr)

    def test_nothing(self):
        """Says what it could not get, on the terminal and in the archive."""
        done = self.collect("-o", self.archive)
        self.assertEqual((done.returncode, done.stdout), (0, f"{self.archive}\n"))
        files = self.collected()
        missing = files["not-collected"].decode().splitlines()
        for line in (
            "bus.pcapng: there is no busctl",
            "journal.json: there is no journalctl",
            "unit: there is no systemctl",
            "process: no process morrow is running",
        ):
            self.assertIn(line, missing)
        self.assertEqual(
            [line for line in done.stderr.splitlines() if "run as root" not in line],
            [f"morrow-collect: not collected: {line}" for line in missing],
        )
        # Without a part that would look like a finding.
        self.assertFalse({line.split(":")[0] for line in missing} & set(files))
        self.assertLessEqual({"time", "kernel", "uptime"}, set(files))

    def test_interrupt(self):
        """Leaves nothing behind: no file, no process."""
        self.tool("busctl", "[ $1 != capture ] || exec sleep 1000")
        for number, status in ((signal.SIGTERM, 143), (signal.SIGHUP, 129)):
            with subprocess.Popen(
                [BUSYBOX, "sh", COLLECT, "-s", "1000", "-o", self.archive],
                env=self.environment(),
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
            ) as process:
                # The last line before it waits for the capture's time.
                for line in process.stderr:
                    if "process: no process morrow" in line:
                        break
                process.send_signal(number)
                # Ends when nobody holds it any longer, the capture included.
                process.stdout.read()
                process.stderr.read()
            self.assertEqual(process.returncode, status)
            self.assertEqual(list(self.temporary.iterdir()), [])
            self.assertFalse(self.archive.exists())

    def test_mistakes(self):
        for arguments, status, message in (
            (["-x"], 2, "Usage: morrow-collect"),
            (["more"], 2, "unexpected argument: more; see morrow-collect -h"),
            (["-s", "1s"], 2, "-s: not a number of seconds: 1s"),
            (["-o", "/"], 2, "-o: / is a directory: name a file"),
            (["-s0", "-o", "/none/x"], 1, "cannot write /none/x: choose another"),
        ):
            done = self.collect(*arguments)
            self.assertEqual((done.returncode, done.stdout), (status, ""), arguments)
            self.assertIn(message, done.stderr)
        self.assertIn("Usage: morrow-collect", self.collect("-h").stdout)


if __name__ == "__main__":
    unittest.main()
