# SPDX-License-Identifier: Apache-2.0
"""A simulated board with a measured program in the daemon's place.

The board is morrow-board, told by lines and heard by the timeline that it
saves. The program gets what the board gives every daemon: its bus, its files,
a notify socket and a pipe for what it logs.
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

from processes import LIMIT, ended

# Levels of the log: what is shown unless told, up to ordinary progress, and up
# to what each iteration logs.
LOG_SHIPPED = 2
LOG_DISCOVERY = 4
LOG_ALL = 11


@dataclass
class Program:
    """What is measured: a program, and what it runs with."""

    path: Path
    libraries: Path | None = None
    arguments: list = field(default_factory=list)

    def command(self, environment, log):
        """A shell's commands, by which the shell itself becomes the program
        without another one in between: its start counts."""
        if self.libraries:
            environment = {"LD_LIBRARY_PATH": self.libraries, **environment}
        lines = ["unset LD_LIBRARY_PATH"]
        lines += [f"export {name}={shlex.quote(str(value))}" for name, value in environment.items()]
        redirected = f" 2>{shlex.quote(str(log))}" if log else ""
        lines += [shlex.join(["exec", str(self.path), *self.arguments]) + redirected]
        return "\n".join(lines)


class Board:
    """A board, until the end of the with statement."""

    def __init__(self, tools, program, host="Off", log_level=LOG_SHIPPED, fast=None, own_log=False,
                 counted=False):
        """fast is what sleeps are divided by; own_log is whether the program
        logs into a file, self.log, and never to the board; counted is whether
        allocations are, with fast only."""
        self.directory = tempfile.TemporaryDirectory(prefix="bench-board-")
        here = Path(self.directory.name)
        self.timeline = here / "timeline.jsonl"
        self.count = here / "sleeps"
        self.allocated = here / "allocations"
        environment = {}
        if fast:
            environment = {
                "LD_PRELOAD": tools.fast_time,
                "FAST_TIME": fast,
                "FAST_TIME_COUNT": self.count,
            }
        if counted:
            environment["LD_PRELOAD"] = f"{tools.fast_time}:{tools.count_allocations}"
            environment["COUNT_ALLOCATIONS"] = self.allocated
        self.log = here / "log" if own_log else None
        wrapper = here / "program"
        wrapper.write_text(f"#!/bin/sh\n{program.command(environment, self.log)}\n")
        wrapper.chmod(0o755)
        self.output = open(here / "output", "w+")
        self.shell = subprocess.Popen(
            [tools.board, "--shell", "--daemon", wrapper, "--policy", tools.policy,
             "--save", self.timeline],
            stdin=subprocess.PIPE, stdout=self.output, stderr=subprocess.STDOUT,
            text=True,
        )  # fmt: skip
        self.seen = []
        self.pending = ""
        self.reader = None
        self.tell(f"loglevel {log_level}", f"host {host}")
        # Hardware that answers at once.
        self.tell("controller 0 comes-up-after 0", "controller 1 comes-up-after 0")

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        # A board that is gone already has been heard of elsewhere.
        with contextlib.suppress(BrokenPipeError):
            self.tell("quit")
        with contextlib.suppress(BrokenPipeError):
            self.shell.stdin.close()
        ended(self.shell)
        self.events()  # up to the last one, for who still looks at them
        if self.reader:
            self.reader.close()
        self.output.close()
        self.directory.cleanup()

    def tell(self, *lines):
        self.shell.stdin.write("".join(f"{line}\n" for line in lines))
        self.shell.stdin.flush()

    def start(self):
        """Starts the program and waits until it is ready."""
        self.tell("daemon start")
        self.wait(lambda event: event.get("text") == "READY=1")

    def start_with_endpoints(self):
        """Starts the daemon with a running host, up to both endpoints."""
        self.tell("host Running")
        self.start()
        self.wait(lambda event: event["event"] == "endpoint_added", times=2)

    @property
    def pid(self):
        return next(e["process"] for e in self.events() if e["event"] == "started")

    def sleeps(self):
        """How often the program has slept; with fast only."""
        return _number_in(self.count)

    def allocations(self):
        """How often it has taken from the heap; where that is counted."""
        return _number_in(self.allocated)

    def wait_sleeps(self, number):
        """Waits until the program has slept so often again."""
        wanted = self.sleeps() + number
        until = time.monotonic() + LIMIT
        while self.sleeps() < wanted:
            self._check(until, f"{number} sleeps")
            time.sleep(0.002)

    def events(self):
        """Everything on the timeline until now."""
        if not self.reader:
            if not self.timeline.exists():
                return []
            self.reader = open(self.timeline)
        self.pending += self.reader.read()
        *whole, self.pending = self.pending.split("\n")
        self.seen += [json.loads(line) for line in whole]
        return self.seen

    def wait(self, wanted, since=0, times=1):
        """The first event that is wanted, or the one that makes it so often,
        among those from the index since on."""
        until = time.monotonic() + LIMIT
        while True:
            found = [event for event in self.events()[since:] if wanted(event)]
            if len(found) >= times:
                return found[times - 1]
            self._check(until, "an event")
            time.sleep(0.005)

    def now(self):
        return len(self.events())

    def bus_address(self):
        return f"unix:path=/proc/{self._board_pid()}/root/run/dbus/system_bus_socket"

    def environment(self):
        return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.bus_address()}

    def _board_pid(self):
        """The board is the parent of what it started."""
        status = Path(f"/proc/{self.pid}/status").read_text()
        return int(status.split("PPid:")[1].split()[0])

    def _check(self, until, what):
        if self.shell.poll() is not None or time.monotonic() > until:
            self.output.seek(0)
            tail = "".join(self.output.readlines()[-20:])
            raise RuntimeError(f"timed out waiting for {what}; the board says:\n{tail}")


def _number_in(file):
    return struct.unpack("=Q", file.read_bytes())[0]
