# SPDX-License-Identifier: Apache-2.0
"""The simulated board in a machine: what it shows as /sys and /dev is the
machine's, and its host-state service is on the machine's bus.

The board keeps its trees and its bus to itself, in a mount namespace. From
there its driver's files, its class entries and its /dev are taken over into
the machine's, and its bus socket becomes a link to the machine's.
"""

import ctypes
import json
import os
import subprocess
from pathlib import Path

from service.machine import ENVIRONMENT, Failed, wait_for

# What of the board's trees is put over the machine's own, as mount points.
TREES = ("/sys/bus", "/sys/class", "/sys/devices/platform", "/dev")

# The board takes this file as a sign that it is in a place of its own already,
# and enters no user namespace, where nobody else could use its files.
MARKER = "/run/morrow-sandbox"

# Not in /run, of which the board has its own.
TIMELINE = "/var/tmp/timeline.jsonl"
SOCKET = "/run/dbus/system_bus_socket"

# open_tree(2), move_mount(2), setns(2): the C library has the last alone.
SYS_OPEN_TREE = 428
SYS_MOVE_MOUNT = 429
AT_FDCWD = -100
AT_RECURSIVE = 0x8000
OPEN_TREE_CLONE = 1
MOVE_MOUNT_F_EMPTY_PATH = 4
CLONE_NEWNS = 0x20000

libc = ctypes.CDLL(None, use_errno=True)


def checked(what, result):
    if result < 0:
        raise OSError(ctypes.get_errno(), what)
    return result


def enter_mounts_of(process):
    with open(f"/proc/{process}/ns/mnt", "rb") as namespace:
        checked("setns", libc.setns(namespace.fileno(), CLONE_NEWNS))


def take_over(path, giver, taker):
    """Mounts a tree that one process sees where another one sees a directory
    of that name."""
    own = os.fork()
    if own == 0:
        try:
            taker_mounts = os.open(f"/proc/{taker}/ns/mnt", os.O_RDONLY)
            enter_mounts_of(giver)
            tree = checked(
                "open_tree",
                libc.syscall(
                    SYS_OPEN_TREE, AT_FDCWD, path.encode(),
                    OPEN_TREE_CLONE | AT_RECURSIVE,
                ),
            )  # fmt: skip
            checked("setns", libc.setns(taker_mounts, CLONE_NEWNS))
            checked(
                "move_mount",
                libc.syscall(
                    SYS_MOVE_MOUNT, tree, b"", AT_FDCWD, path.encode(),
                    MOVE_MOUNT_F_EMPTY_PATH,
                ),
            )  # fmt: skip
            os._exit(0)
        except OSError as error:
            os.write(2, f"{path}: {error}\n".encode())
            os._exit(1)
    _, status = os.waitpid(own, 0)
    if status != 0:
        raise Failed(f"cannot show the board's {path} to the machine")


class Board:
    """Runs from when it is entered until it is left."""

    def __init__(self, machine, log):
        self.machine = machine
        self.log = log
        self.program = None
        self.notes = 0

    def __enter__(self):
        self.machine.write(MARKER, "")
        self.program = subprocess.Popen(
            self.machine.command("morrow-board", "--shell", "--save", TIMELINE),
            stdin=subprocess.PIPE,
            stdout=self.log,
            stderr=subprocess.STDOUT,
            env=ENVIRONMENT,
            text=True,
        )
        try:
            self._say("note")
            process = self._process()
            for path in TREES:
                take_over(path, process, self.machine.leader)
            self._use_bus_of_machine(process)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.program.stdin.close()
        try:
            self.program.wait(10)
        except subprocess.TimeoutExpired:
            self.program.kill()
            self.program.wait()

    def _process(self):
        """nsenter starts it, and waits for it in case of a namespace of
        processes."""
        children = Path(f"/proc/{self.program.pid}/task/{self.program.pid}/children")
        return int((children.read_text().split() or [self.program.pid])[0])

    def _use_bus_of_machine(self, process):
        subprocess.run(
            ["nsenter", "--target", str(process), "--mount", "--",
             "ln", "-sf", f"/proc/1/root{SOCKET}", SOCKET],
            check=True,
        )  # fmt: skip
        self.reconnect()

    def reconnect(self):
        """The host's connections are made anew, to the machine's broker."""
        self.tell("host leaves", "host comes")

    def tell(self, *lines):
        """Tells the board these words, as its shell knows them, and returns
        when they are done."""
        for line in lines:
            self._say(line)

    def _say(self, line):
        self.notes += 1
        mark = f"done {self.notes}"
        self.program.stdin.write(f"{line}\nnote {mark}\n")
        self.program.stdin.flush()
        wait_for(
            f'end of "{line}" on the board',
            lambda: any(event.get("text") == mark for event in self.timeline()),
        )

    def timeline(self):
        """All that has happened on the board, oldest first."""
        if self.program.poll() is not None:
            raise Failed("the board has ended: see the log")
        file = Path(f"/proc/{self.machine.leader}/root{TIMELINE}")
        lines = file.read_text().splitlines() if file.exists() else []
        return [json.loads(line) for line in lines if line.endswith("}")]

    def await_event(self, what, since=0, limit=30, **facts):
        """Waits for an event with these facts.
        @param since how many events there were before it"""

        def found():
            return any(
                all(event.get(name) == value for name, value in facts.items())
                for event in self.timeline()[since:]
            )

        wait_for(what, found, limit)
