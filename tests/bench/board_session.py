# SPDX-License-Identifier: Apache-2.0
"""A simulated board with a measured program in the daemon's place.

The board is morrow-board: it reads commands from its standard input and saves
its timeline. The program gets what the board gives the daemon: the bus, the
driver's files, a notify socket and a pipe for its log.
"""

import contextlib
import json
import os
import shlex
import struct
import subprocess
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

from process_cost import LIMIT, wait_for_end

# Log levels: the default, up to ordinary progress, all of an iteration.
LOG_DEFAULT = 2
LOG_DISCOVERY = 4
LOG_ALL = 11


@dataclass
class Program:
    """A program to measure, with its libraries."""

    path: Path
    libraries: Path | None = None
    arguments: list = field(default_factory=list)

    def script(self, environment, log):
        """A shell script that becomes the program without a process between."""
        if self.libraries:
            environment = {"LD_LIBRARY_PATH": self.libraries, **environment}
        lines = ["#!/bin/sh", "unset LD_LIBRARY_PATH"]
        lines += [f"export {name}={shlex.quote(str(value))}" for name, value in environment.items()]
        redirected = f" 2>{shlex.quote(str(log))}" if log else ""
        lines += [shlex.join(["exec", str(self.path), *self.arguments]) + redirected]
        return "\n".join(lines) + "\n"


class Tools:
    """What scripts/bench has built."""

    def __init__(self, root):
        programs = root / "release/tests/bench"
        self.root = root
        self.board = root / "board/board/morrow-board"
        self.fast_time = programs / "libfast_time.so"
        self.signals = programs / "signals"
        self._baseline = programs / "baseline"
        self.policy = self.stage("release") / (
            "share/dbus-1/system.d/xyz.openbmc_project.mctp.conf"
        )

    def stage(self, build):
        return self.root / build / "stage/usr"

    @property
    def daemon(self):
        stage = self.stage("release")
        libraries = next(stage.glob("lib/**/libplatform-log.so.1")).parent
        return Program(stage / "libexec/morrow/morrow", libraries)

    def baseline(self, *arguments):
        return Program(self._baseline, None, list(arguments))


class Board:
    """A board, until the end of the with statement."""

    def __init__(self, tools, program, host="Off", log_level=LOG_DEFAULT, fast=None, own_log=False):
        """fast is the divisor of sleeps; with own_log the program logs into the
        file self.log instead of to the board."""
        self.directory = tempfile.TemporaryDirectory(prefix="bench-board-")
        here = Path(self.directory.name)
        self.timeline = here / "timeline.jsonl"
        self.count = here / "sleeps"
        environment = {}
        if fast:
            environment = {
                "LD_PRELOAD": tools.fast_time,
                "FAST_TIME": fast,
                "FAST_TIME_COUNT": self.count,
            }
        self.log = here / "log" if own_log else None
        script = here / "program"
        script.write_text(program.script(environment, self.log))
        script.chmod(0o755)
        self.output = open(here / "output", "w+")
        self.shell = subprocess.Popen(
            [tools.board, "--shell", "--daemon", script, "--policy", tools.policy,
             "--save", self.timeline],
            stdin=subprocess.PIPE, stdout=self.output, stderr=subprocess.STDOUT,
            text=True,
        )  # fmt: skip
        self.seen = []
        self.pending = ""
        self.reader = None
        self.command(f"loglevel {log_level}", f"host {host}")
        # Hardware that answers at once.
        self.command("controller 0 comes-up-after 0", "controller 1 comes-up-after 0")

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        # A board that has failed has closed its end; wait() reports that.
        with contextlib.suppress(BrokenPipeError):
            self.command("quit")
        with contextlib.suppress(BrokenPipeError):
            self.shell.stdin.close()
        wait_for_end(self.shell)
        self.events()  # the last ones, for callers that still look at them
        if self.reader:
            self.reader.close()
        self.output.close()
        self.directory.cleanup()

    def command(self, *lines):
        self.shell.stdin.write("".join(f"{line}\n" for line in lines))
        self.shell.stdin.flush()

    def start(self):
        """Starts the program and waits until it is ready."""
        self.command("daemon start")
        self.wait(lambda event: event.get("text") == "READY=1")

    def start_with_endpoints(self):
        """Starts the daemon with a running host and waits for both endpoints."""
        self.command("host Running")
        self.start()
        self.wait(lambda event: event["event"] == "endpoint_added", times=2)

    @property
    def pid(self):
        return next(e["process"] for e in self.events() if e["event"] == "started")

    def sleeps(self):
        """How often the program has slept; with fast only."""
        return struct.unpack("=Q", self.count.read_bytes())[0]

    def wait_sleeps(self, number):
        """Waits until the program has slept so often again."""
        wanted = self.sleeps() + number
        until = time.monotonic() + LIMIT
        while self.sleeps() < wanted:
            self._check(until, f"{number} sleeps")
            time.sleep(0.002)

    def events(self):
        """The timeline so far."""
        if not self.reader:
            if not self.timeline.exists():
                return []
            self.reader = open(self.timeline)
        self.pending += self.reader.read()
        *whole, self.pending = self.pending.split("\n")
        self.seen += [json.loads(line) for line in whole]
        return self.seen

    def wait(self, wanted, since=0, times=1):
        """The event for which `wanted` is true the given number of times, from
        the index `since` on."""
        until = time.monotonic() + LIMIT
        while True:
            found = [event for event in self.events()[since:] if wanted(event)]
            if len(found) >= times:
                return found[times - 1]
            self._check(until, "an event")
            time.sleep(0.005)

    def now(self):
        return len(self.events())

    def environment(self):
        """The environment of another client of the board's bus."""
        status = Path(f"/proc/{self.pid}/status").read_text()
        board = int(status.split("PPid:")[1].split()[0])
        socket = f"/proc/{board}/root/run/dbus/system_bus_socket"
        return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={socket}"}

    def _check(self, until, what):
        if self.shell.poll() is not None or time.monotonic() > until:
            self.output.seek(0)
            tail = "".join(self.output.readlines()[-20:])
            raise RuntimeError(f"timeout: no {what}; the board's output:\n{tail}")
